#pragma once

#include <optional>
#include <QString>

class FolderChooser;
class PasswordDatabase;
class UserDefaults;

// What the launch learns about the user's home folder.
struct HomeFolderOutcome {
    std::optional<QString> homeDirectory; // nothing while the home folder is unknown
    bool endLaunchEarly = false;          // the first sandboxed launch was answered with a wrong folder
};

// Finds the user's real home folder, inside which the iCloud folder lies. Outside a sandbox it is the
// process's home. Inside one the process cannot see it: the user picks it once (the question is asked on
// the first launch only, whatever the answer), the choice must be the home folder from the password
// database, and it is kept as a bookmark that later launches resolve.
class HomeFolderAcquisition {
public:
    HomeFolderAcquisition(UserDefaults& defaults, FolderChooser& chooser, const PasswordDatabase& passwords);

    HomeFolderOutcome run(bool sandboxed, const QString& processHome);

    // More than three path components in the process's home ("/", "home", "jane") means a sandbox
    // container home, unless it is the home the password database gives the user: a deep home of one's
    // own ("/home/example.com/alice") is no container, and asking for it at every first launch would be
    // wrong. Otherwise the count is the whole test, on purpose.
    static bool isSandboxedHome(const QString& processHome, const PasswordDatabase& passwords);
    static QString mobileDocumentsDirectory(const QString& homeDirectory);

private:
    HomeFolderOutcome askOnFirstLaunch();
    HomeFolderOutcome resolveStoredBookmark();
    void storeBookmark(const QString& folder);

    UserDefaults& m_defaults;
    FolderChooser& m_chooser;
    const PasswordDatabase& m_passwords;
};
