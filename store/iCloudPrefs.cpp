#include "iCloudPrefs.h"

#include "platform/UserDefaults.h"

void iCloudPrefs::registerDefaults(UserDefaults& defaults)
{
    defaults.registerDefaults({{kFirstLaunchKey, true}, {kDontAskMeAgainRemoveBackupKey, false}});
}

bool iCloudPrefs::isFirstLaunch(const UserDefaults& defaults)
{
    return defaults.boolForKey(kFirstLaunchKey);
}

void iCloudPrefs::setFirstLaunch(UserDefaults& defaults, bool firstLaunch)
{
    defaults.setBoolForKey(firstLaunch, kFirstLaunchKey);
}

bool iCloudPrefs::dontAskAgainRemoveBackup(const UserDefaults& defaults)
{
    return defaults.boolForKey(kDontAskMeAgainRemoveBackupKey);
}

void iCloudPrefs::setDontAskAgainRemoveBackup(UserDefaults& defaults, bool dontAsk)
{
    defaults.setBoolForKey(dontAsk, kDontAskMeAgainRemoveBackupKey);
}
