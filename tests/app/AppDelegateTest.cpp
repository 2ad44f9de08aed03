#include "Helpers/Localizer.h"
#include "app/AppDelegate.h"
#include "app/MainMenu.h"
#include "app/iCloudPrefs.h"
#include "engine/BackupStore.h"
#include "platform/SingleInstance.h"
#include "platform/TerminationSignals.h"
#include "platform/UserDefaults.h"
#include "support/EventLoop.h"
#include "support/FakeRunningApplications.h"
#include "support/RecordingFileManager.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/ScriptedChoosers.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"
#include "ui/inspector/InspectorWindowController.h"
#include "ui/main/MainWindowController.h"

#include <QAction>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QTableWidget>
#include <csignal>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace fs = std::filesystem;
using namespace TreeBuilder;
using Command = MainMenu::Command;

namespace {

class AppDelegateTest : public ::testing::Test {
protected:
    AppDelegateTest()
    {
        Localizer::Resources english;
        english.userLanguages = QStringList{"en"};
        Localizer::setResources(english);
        iCloudPrefs::registerDefaults(defaults);
        passwords.home = home.path().string();
    }

    // Backups whose folders hold the given containers.
    void storeBackups(int count)
    {
        BackupStore store(defaults);
        for (int i = 0; i < count; ++i) {
            const fs::path folder = home.dataHome() / "Pelmora" / ("backup-" + std::to_string(i));
            writeFile(folder / "iCloud~com~example~Notes" / "a.txt", "12345");
            writeFile(folder / "iCloud~com~example~Notes" / "sub" / "b.txt", "123");
            writeFile(folder / "com~example~CloudDocs" / "c.txt", "1");
            writeFile(folder / ".hidden" / "d.txt", "1");
            writeFile(folder / "notes.txt", "1");
            makeSymlink("com~example~CloudDocs", folder / "link-to-container");
            store.append(BackupRecord::make(QDateTime::fromSecsSinceEpoch(1700000000 + i * 86400),
                                            QString::fromStdString(folder.string()), 4096));
        }
    }
    void launch()
    {
        delegate.applicationDidFinishLaunching();
        controller = delegate.mainWindowController();
    }
    bool enabled(Command command) const { return delegate.validateMenuItem(delegate.mainMenu()->action(command)); }
    void select(int row) { controller->backupsTable()->selectRow(row); }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    ScriptedFolderChooser chooser;
    ScriptedPasswordDatabase passwords;
    FakeRunningApplications applications;
    ScriptedAlertPresenter alerts;
    RecordingFileManager fileManager;
    StreamLog streams;
    AppDelegate delegate{{defaults, chooser, passwords, applications, alerts, fileManager,
                          scriptedStreamFactory(streams), std::chrono::milliseconds(10)}};
    MainWindowController* controller = nullptr;
};

TEST_F(AppDelegateTest, WithNoBackupsOnlyBackUpIsEnabled)
{
    launch();
    EXPECT_TRUE(enabled(Command::CreateBackup));
    for (Command command : {Command::RestoreBackup, Command::ShowBackupInfo, Command::ShowInFinder,
                            Command::DeleteBackup})
        EXPECT_FALSE(enabled(command));
    EXPECT_TRUE(enabled(Command::About));
}

TEST_F(AppDelegateTest, ValidationFollowsTheRunningOperationWithItsAsymmetries)
{
    storeBackups(1);
    launch();
    select(0);
    for (Command command : {Command::CreateBackup, Command::RestoreBackup, Command::ShowBackupInfo,
                            Command::ShowInFinder, Command::DeleteBackup})
        EXPECT_TRUE(enabled(command));

    controller->setICloudBackingUp(true);
    EXPECT_TRUE(enabled(Command::CreateBackup));
    EXPECT_FALSE(enabled(Command::RestoreBackup));
    EXPECT_TRUE(enabled(Command::DeleteBackup));

    controller->setICloudBackingUp(false);
    controller->setICloudBeingRestored(true);
    EXPECT_FALSE(enabled(Command::CreateBackup));
    EXPECT_FALSE(enabled(Command::RestoreBackup));
    EXPECT_FALSE(enabled(Command::DeleteBackup));
    EXPECT_TRUE(enabled(Command::ShowInFinder));
    EXPECT_TRUE(enabled(Command::ShowBackupInfo));
}

TEST_F(AppDelegateTest, OneInspectorPerBackupForgottenWhenItCloses)
{
    storeBackups(2);
    launch();
    select(0);
    delegate.showBackupInfo();
    delegate.showBackupInfo();
    ASSERT_EQ(delegate.inspectorControllers().size(), 1u);
    InspectorWindowController* first = delegate.inspectorControllers().front().get();
    EXPECT_TRUE(first->isVisible());

    select(1);
    delegate.showBackupInfo();
    ASSERT_EQ(delegate.inspectorControllers().size(), 2u);

    QMenu* windowMenu = delegate.mainMenu()->windowMenu();
    emit windowMenu->aboutToShow();
    QStringList titles;
    for (QAction* item : windowMenu->actions())
        titles << item->text();
    const QString firstTitle = Localizer::localizedStringForKey("menuItemTitleBackup")
                                   .arg(QLocale().toString(QDateTime::fromSecsSinceEpoch(1700000000), QLocale::ShortFormat));
    EXPECT_TRUE(titles.contains(firstTitle)) << titles.join(" | ").toStdString();

    first->close();
    EXPECT_EQ(delegate.inspectorControllers().size(), 1u);
    select(0);
    delegate.showBackupInfo();
    EXPECT_EQ(delegate.inspectorControllers().size(), 2u) << "a fresh inspector after the close";
}

TEST_F(AppDelegateTest, TheInspectorListsContainerFoldersOnly)
{
    storeBackups(1);
    launch();
    select(0);
    delegate.showBackupInfo();
    InspectorWindowController* inspector = delegate.inspectorControllers().front().get();

    QStringList names;
    for (const auto& entry : inspector->appContainers())
        names << entry.appName;
    names.sort();
    EXPECT_EQ(names, QStringList({"CloudDocs", "Notes"}));
    EXPECT_EQ(inspector->backupContentDescriptionLabel()->text(),
              Localizer::localizedStringForKey("formatStringBackupContent").arg("2", "3"));
    EXPECT_TRUE(inspector->showInFinderBtn()->isEnabled());

    inspector->showInFinder();
    EXPECT_EQ(fileManager.selected, QStringList({*controller->backups().at(0)->backupFolder()}));
    inspector->showAppContainerInFinder();
    EXPECT_EQ(fileManager.selected.size(), 1) << "no row selected: nothing";
}

TEST_F(AppDelegateTest, TheInspectorOfADeletedBackupSaysSo)
{
    storeBackups(1);
    launch();
    removeTree(home.dataHome() / "Pelmora" / "backup-0");
    select(0);
    delegate.showBackupInfo();
    InspectorWindowController* inspector = delegate.inspectorControllers().front().get();
    EXPECT_EQ(inspector->backupSizeLabel()->text(), Localizer::localizedStringForKey("alertBackupNotFoundMessage"));
    EXPECT_FALSE(inspector->showInFinderBtn()->isEnabled());
    EXPECT_EQ(inspector->backupContentTable()->rowCount(), 0);
    EXPECT_EQ(inspector->backupContentDescriptionLabel()->text(),
              Localizer::localizedStringForKey("formatStringBackupContent").arg("0", "0"));
}

TEST_F(AppDelegateTest, QuittingWhileIdleNeverAsks)
{
    launch();
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_TRUE(alerts.shown.isEmpty());
}

TEST_F(AppDelegateTest, QuittingDuringABackupAsksAndOnYesRemovesTheUnfinishedFolder)
{
    writeFile(home.path() / "Library" / "Mobile Documents" / "com~apple~CloudDocs" / "f", "x");
    launch();
    // The count runs in the background; until its result arrives the backup is under way.
    controller->backUpNow();
    ASSERT_TRUE(controller->isiCloudBackingUp());
    const fs::path unfinished = QFile::encodeName(controller->iCloudBackupDirectory()).toStdString();
    writeFile(unfinished / "partial", "x");

    alerts.answers = {AlertResponse{1001, false}};
    EXPECT_FALSE(delegate.applicationShouldTerminate());
    EXPECT_EQ(alerts.messages(), QStringList({Localizer::localizedStringForKey("alertiCloudIsBeingBackedUpMsg")}));
    EXPECT_TRUE(controller->isiCloudBackingUp());
    EXPECT_TRUE(fs::exists(unfinished));

    alerts.answers = {AlertResponse{1000, false}};
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_TRUE(controller->isCanceled());
    EXPECT_FALSE(fs::exists(unfinished));
}

TEST_F(AppDelegateTest, WhenNobodyCanBeAskedTheAnswerIsYes)
{
    launch();
    controller->setICloudBeingRestored(true);
    EXPECT_TRUE(delegate.applicationShouldTerminate(false));
    EXPECT_TRUE(alerts.shown.isEmpty());
    EXPECT_TRUE(controller->isCanceled());
}

TEST_F(AppDelegateTest, QuittingDuringARestoreAsksTheRestoreQuestion)
{
    launch();
    controller->setICloudBeingRestored(true);
    alerts.answers = {AlertResponse{1000, false}};
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_EQ(alerts.messages(), QStringList({Localizer::localizedStringForKey("alertiCloudIsBeingRestoredMsg")}));
}

TEST_F(AppDelegateTest, ASecondStartShowsTheHiddenMainWindow)
{
    launch();
    controller->close();
    ASSERT_FALSE(controller->isVisible());
    SingleInstance first(QStringLiteral("pelmora-test-%1").arg(QCoreApplication::applicationPid()));
    ASSERT_TRUE(first.listen());
    QObject::connect(&first, &SingleInstance::reopenRequested, &delegate,
                     [this] { delegate.applicationShouldHandleReopen(); });

    SingleInstance second(QStringLiteral("pelmora-test-%1").arg(QCoreApplication::applicationPid()));
    EXPECT_TRUE(second.handOverToRunningInstance());
    EXPECT_TRUE(runEventLoopUntil([&] { return controller->isVisible(); }));

    SingleInstance nobody(QStringLiteral("pelmora-test-none-%1").arg(QCoreApplication::applicationPid()));
    EXPECT_FALSE(nobody.handOverToRunningInstance());
}

TEST(TerminationSignalsTest, ASignalArrivesOnTheEventLoop)
{
    TerminationSignals signalsOfTheProcess;
    ASSERT_TRUE(signalsOfTheProcess.install());
    QSignalSpy requested(&signalsOfTheProcess, &TerminationSignals::terminationRequested);
    ::raise(SIGTERM);
    ASSERT_TRUE(runEventLoopUntil([&] { return requested.count() == 1; }));
    EXPECT_EQ(requested.at(0).at(0).toInt(), SIGTERM);
}

} // namespace
