#pragma once

#include "platform/Localizer.h"
#include "platform/UserDefaults.h"
#include "store/BackupStore.h"
#include "store/iCloudPrefs.h"
#include "support/FakeRunningApplications.h"
#include "support/RecordingFileManager.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/ScriptedChoosers.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <QFile>

// What the program meets in a test: a temporary home that is also the user's home folder, the texts of
// one language, the built-in defaults, and scripted services.
class TestWorld : public ::testing::Test {
protected:
    explicit TestWorld(const char* language = "en")
    {
        Localizer::Resources resources;
        resources.userLanguages = QStringList{QString::fromLatin1(language)};
        Localizer::setResources(resources);
        iCloudPrefs::registerDefaults(defaults);
        passwords.home = home.path().string();
    }
    ~TestWorld() override { Localizer::setResources(Localizer::Resources{}); }

    static QString text(const char* key)
    {
        return Localizer::localizedStringForKey(QString::fromLatin1(key));
    }
    std::filesystem::path iCloud() const { return home.path() / "Library" / "Mobile Documents"; }
    QString iCloudFolder() const { return QString::fromStdString(iCloud().string()); }
    static std::filesystem::path folderOf(const BackupRecordRef& record)
    {
        return QFile::encodeName(*record->backupFolder()).toStdString();
    }
    void storeBackups(const QList<BackupRecordRef>& records)
    {
        BackupStore store(defaults);
        for (const BackupRecordRef& record : records)
            store.append(record);
    }
    // The backup folders as a later run of the program reads them.
    static QStringList storedFolders()
    {
        UserDefaults later(UserDefaults::standardFilePath());
        BackupStore store(later);
        store.load();
        QStringList folders;
        for (const BackupRecordRef& record : store.records())
            folders << *record->backupFolder();
        return folders;
    }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    FakeRunningApplications applications;
    ScriptedAlertPresenter alerts;
    ScriptedFolderChooser chooser;
    ScriptedPasswordDatabase passwords;
    RecordingFileManager fileManager;
    StreamLog streams;
};
