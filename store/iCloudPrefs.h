#pragma once

#include <QString>

class UserDefaults;

// The program's preference keys and the named accessors for its two yes/no preferences.
// "dontAskAgain" in the accessor names and "DontAskMeAgain" in the key are both kept as they are.
class iCloudPrefs {
public:
    iCloudPrefs() = delete;

    static inline const QString kFirstLaunchKey = QStringLiteral("FirstLaunch");
    static inline const QString kDontAskMeAgainRemoveBackupKey = QStringLiteral("DontAskMeAgainRemoveBackup");
    static inline const QString kHomeDirBookmarkDataKey = QStringLiteral("HomeDirBookmarkData");
    static inline const QString kBackupsKey = QStringLiteral("Backups");

    // Puts the built-in defaults in place (in memory only): FirstLaunch YES, DontAskMeAgainRemoveBackup NO.
    static void registerDefaults(UserDefaults& defaults);

    static bool isFirstLaunch(const UserDefaults& defaults);
    static void setFirstLaunch(UserDefaults& defaults, bool firstLaunch);
    static bool dontAskAgainRemoveBackup(const UserDefaults& defaults);
    static void setDontAskAgainRemoveBackup(UserDefaults& defaults, bool dontAsk);
};
