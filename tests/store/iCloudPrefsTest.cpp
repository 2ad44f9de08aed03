#include "store/iCloudPrefs.h"

#include "platform/UserDefaults.h"
#include "support/TestHome.h"

#include <gtest/gtest.h>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QJsonObject stored()
{
    QFile in(UserDefaults::standardFilePath());
    return in.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(in.readAll()).object() : QJsonObject();
}

TEST(iCloudPrefsTest, BuiltInDefaultsAreNotStoredAndChangesLastIntoLaterRunsUnderTheirOwnKeys)
{
    TestHome home;
    {
        UserDefaults defaults(UserDefaults::standardFilePath());
        iCloudPrefs::registerDefaults(defaults);
        EXPECT_TRUE(iCloudPrefs::isFirstLaunch(defaults));
        EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));
        EXPECT_TRUE(stored().isEmpty());
        iCloudPrefs::setFirstLaunch(defaults, false);
        iCloudPrefs::setDontAskAgainRemoveBackup(defaults, true);
    }
    EXPECT_EQ(stored().size(), 2);
    UserDefaults later(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(later);
    EXPECT_FALSE(iCloudPrefs::isFirstLaunch(later));
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(later));
}

} // namespace
