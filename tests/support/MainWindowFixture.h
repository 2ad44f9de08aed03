#pragma once

#include "Helpers/Localizer.h"
#include "app/iCloudPrefs.h"
#include "platform/AlertPresenter.h"
#include "platform/FileManager.h"
#include "platform/FolderChooser.h"
#include "platform/PasswordDatabase.h"
#include "platform/RunningApplications.h"
#include "platform/UserDefaults.h"
#include "support/EventLoop.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"
#include "ui/main/MainWindowController.h"

#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

// Scripted stand-ins for the platform's services; each remembers what it was asked.
class FakeRunningApplications : public RunningApplications {
public:
    void add(pid_t pid, std::optional<QString> bundleIdentifier, const QString& name = QStringLiteral("App"))
    {
        m_applications.append(RunningApplication{pid, std::move(bundleIdentifier), name, {}, {}});
    }
    void remove(pid_t pid)
    {
        m_applications.removeIf([pid](const RunningApplication& app) { return app.processIdentifier == pid; });
    }
    QList<RunningApplication> runningApplications() const override { return m_applications; }
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) const override
    {
        const auto found = std::find_if(m_applications.begin(), m_applications.end(),
                                        [pid](const auto& app) { return app.processIdentifier == pid; });
        return found == m_applications.end() ? std::nullopt : std::optional(*found);
    }
    bool activate(pid_t pid) override
    {
        activated << pid;
        return true;
    }

    QList<pid_t> activated;

private:
    QList<RunningApplication> m_applications;
};

// Answers from `answers` (the first button, box unticked, once they run out) and keeps every alert shown.
class ScriptedAlertPresenter : public AlertPresenter {
public:
    AlertResponse runModal(const Alert& alert) override
    {
        shown << alert;
        return answers.isEmpty() ? AlertResponse{} : answers.takeFirst();
    }
    QStringList messages() const
    {
        QStringList texts;
        for (const Alert& alert : shown)
            texts << alert.messageText;
        return texts;
    }

    QList<AlertResponse> answers;
    QList<Alert> shown;
};

class ScriptedFolderChooser : public FolderChooser {
public:
    std::optional<QString> chooseFolder(const QString& title) override
    {
        titles << title;
        return answer;
    }
    std::optional<QString> answer;
    QStringList titles;
};

class ScriptedPasswordDatabase : public PasswordDatabase {
public:
    std::optional<std::string> homeDirectoryOfUser(uid_t) const override { return home; }
    std::optional<std::string> home;
};

class RecordingFileManager : public FileManager {
public:
    void selectFile(const QString& path) override { selected << path; }
    QStringList selected;
};

// What the program meets in a test: a temporary home that is also the user's home folder, the texts of
// one language, the built-in defaults, and the scripted services above.
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

    static QString text(const char* key) { return Localizer::localizedStringForKey(QString::fromLatin1(key)); }
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

// The main window on its own, with a quick check of the apps to quit.
class MainWindowFixture : public TestWorld {
protected:
    MainWindowController::Services services(bool sandboxed = false)
    {
        return {defaults, applications, alerts, chooser, passwords, fileManager,
                [sandboxed] { return sandboxed; }, [this] { return homeDirectory; },
                [this](const QString& chosen) { homeDirectory = chosen; }, scriptedStreamFactory(streams),
                std::chrono::milliseconds(10), copier, clock};
    }
    // Shown, and done measuring the iCloud folder.
    std::unique_ptr<MainWindowController> openWindow(bool sandboxed = false)
    {
        auto controller = std::make_unique<MainWindowController>(services(sandboxed));
        controller->showWindow();
        EXPECT_TRUE(waitForSize(*controller));
        return controller;
    }
    static bool waitForSize(MainWindowController& controller)
    {
        return runEventLoopUntil([&] { return !controller.isCalculatingiCloudSizeInProgress(); });
    }
    static bool backUp(MainWindowController& controller)
    {
        QSignalSpy finished(&controller, &MainWindowController::backUpFinished);
        controller.backUpNow();
        return runEventLoopUntil([&] { return finished.count() > 0; }, 20000);
    }

    std::optional<QString> homeDirectory = QString::fromStdString(home.path().string());
    MainWindowController::Services::CopierFunction copier = {};
    std::function<QDateTime()> clock = {};
};
