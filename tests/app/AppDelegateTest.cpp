#include "app/AppDelegate.h"

#include "app/MainMenu.h"
#include "engine/UnfinishedMark.h"
#include "platform/SingleInstance.h"
#include "platform/TerminationSignals.h"
#include "store/BackupRoot.h"
#include "support/Keyboard.h"
#include "support/MainWindowFixture.h"
#include "support/PausingCopier.h"
#include "support/SecondStart.h"
#include "ui/inspector/InspectorWindowController.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

#include <csignal>
#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QScreen>
#include <QTableWidget>

namespace fs = std::filesystem;
using namespace TreeBuilder;
using Command = MainMenu::Command;

namespace {

// A container whose name is not UTF-8.
const std::string kByteNamedContainer = "iCloud~com~example~Caf\xe9";

class AppDelegateTest : public TestWorld {
protected:
    // Backups whose folders hold three containers, and a hidden folder, a file and a link that are none.
    void makeBackups(int count)
    {
        QList<BackupRecordRef> records;
        for (int i = 0; i < count; ++i) {
            // Named and placed as the program names its own, which is all that Delete will remove.
            const fs::path folder = backupFolder(i);
            writeItems(folder,
                       {"iCloud~com~example~Notes/a.txt=12345", "iCloud~com~example~Notes/sub/b.txt=123",
                        "com~example~CloudDocs/c.txt=1", kByteNamedContainer + "/e.txt=1", ".hidden/d.txt=1",
                        "notes.txt=1", "link-to-container=-> com~example~CloudDocs"});
            records << BackupRecord::make(backupDate(i), QString::fromStdString(folder.string()), 4096);
        }
        storeBackups(records);
    }
    static QDateTime backupDate(int i) { return QDateTime::fromSecsSinceEpoch(1700000000 + i * 86400); }
    static fs::path backupFolder(int i)
    {
        return QFile::encodeName(BackupRoot::folderPath(backupDate(i))).toStdString();
    }
    void launch()
    {
        delegate.applicationDidFinishLaunching();
        controller = delegate.mainWindowController();
    }
    void select(int row) { controller->backupsTable()->selectRow(row); }
    QAction* action(Command command) const { return delegate.mainMenu()->action(command); }
    void pressControlAnd(Qt::Key key) { QTest::keyClick(controller, key, Qt::ControlModifier); }

    // Called after the first file of a copy, with the copy's quit flag.
    std::function<void(const std::atomic<bool>*)> copierHook;
    AppDelegate delegate{{defaults, chooser, passwords, applications, alerts, fileManager,
                          scriptedStreamFactory(streams), std::chrono::milliseconds(10),
                          copierPausingAfterFirstFile([this](const std::atomic<bool>* abandon) {
                              if (copierHook)
                                  copierHook(abandon);
                          }),
                          [this] { return clock; }}};
    QDateTime clock = QDateTime::currentDateTime();
    MainWindowController* controller = nullptr;
};

// The item shows the reverse of "Don't ask again", read afresh each time the File menu opens.
TEST_F(AppDelegateTest, AskBeforeDeletingBackupsFollowsDontAskAgainAndTurnsTheQuestionBackOn)
{
    makeBackups(3);
    launch();
    QMenu* fileMenu = delegate.mainMenu()->fileMenu();
    QAction* ask = action(Command::AskBeforeDeletingBackups);
    ASSERT_TRUE(fileMenu->actions().contains(ask));
    emit fileMenu->aboutToShow();
    EXPECT_TRUE(ask->isChecked()) << "asking is the default";

    select(0);
    alerts.answers = {AlertResponse{1001, true}};
    delegate.deleteBackup();
    ASSERT_EQ(controller->backups().count(), 2) << "No with the box ticked still deletes";
    emit fileMenu->aboutToShow();
    EXPECT_FALSE(ask->isChecked()) << "the confirmation turned the question off meanwhile";

    ask->trigger();
    EXPECT_TRUE(ask->isChecked());
    EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(UserDefaults(UserDefaults::standardFilePath())))
        << "written to the preferences file";
    select(0);
    alerts.answers = {AlertResponse{1001, false}};
    delegate.deleteBackup();
    EXPECT_EQ(alerts.messages(), QStringList(2, text("alertDeleteBackupMessage"))) << "asked again";
    EXPECT_EQ(controller->backups().count(), 2) << "and No keeps the backup";
    EXPECT_TRUE(fs::exists(folderOf(controller->backups().at(0))));

    ask->trigger();
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));
    emit fileMenu->aboutToShow();
    EXPECT_FALSE(ask->isChecked());
    delegate.deleteBackup();
    EXPECT_EQ(alerts.shown.size(), 2) << "deleted without a question";
    EXPECT_EQ(controller->backups().count(), 1);
}

// The shortcut of a command is live exactly when the command is allowed, also after a menu opened while
// it was not: the selection and the running operations set the menu's states as they change.
TEST_F(AppDelegateTest, ShortcutsComeAliveAndDieWithTheirCommandsWhetherOrNotAMenuOpens)
{
    makeBackups(1);
    writeFile(iCloud() / "com~apple~CloudDocs" / "live.txt", "x");
    launch();
    ASSERT_TRUE(runEventLoopUntil([&] { return QApplication::activeWindow() == controller; }));
    QMenu* fileMenu = delegate.mainMenu()->fileMenu();
    const auto openAndCloseFileMenu = [&] {
        fileMenu->popup(controller->geometry().center());
        fileMenu->hide();
    };

    openAndCloseFileMenu();
    ASSERT_FALSE(action(Command::ShowBackupInfo)->isEnabled()) << "no row is selected";
    select(0);
    pressControlAnd(Qt::Key_I);
    EXPECT_EQ(delegate.inspectorControllers().size(), 1u) << "Get Info, disabled when the menu last opened";

    openAndCloseFileMenu();
    controller->backupsTable()->clearSelection();
    EXPECT_FALSE(action(Command::ShowInFinder)->isEnabled());
    pressControlAnd(Qt::Key_O);
    EXPECT_TRUE(fileManager.selected.isEmpty()) << "Show in File Manager, enabled when the menu last opened";

    // The restore holds at its first copied file: Back Up waits for its end.
    select(0);
    std::atomic<bool> resume = false;
    copierHook = [&](const std::atomic<bool>*) { resume.wait(false); };
    alerts.answers = {AlertResponse{1000, false}};
    QSignalSpy restored(controller, &MainWindowController::restoreFinished);
    delegate.restoreBackup();
    ASSERT_TRUE(controller->isiCloudBeingRestored());
    openAndCloseFileMenu();
    pressControlAnd(Qt::Key_B);
    EXPECT_FALSE(controller->isiCloudBackingUp()) << "no backup during a restore";
    resume = true;
    resume.notify_all();
    ASSERT_TRUE(runEventLoopUntil([&] { return restored.count() == 1; }));
    EXPECT_TRUE(action(Command::CreateBackup)->isEnabled());

    makeFolder(iCloud() / "com~apple~CloudDocs"); // the backup did not hold it, so the restore took it out
    QSignalSpy backedUp(controller, &MainWindowController::backUpFinished);
    pressControlAnd(Qt::Key_B);
    EXPECT_TRUE(runEventLoopUntil([&] { return backedUp.count() == 1; }));
    EXPECT_EQ(controller->backups().count(), 2);
}

TEST_F(AppDelegateTest, OneInspectorPerBackupListingItsContainersForgottenWhenItCloses)
{
    makeBackups(2);
    launch();
    // At the right edge of its screen: the info windows beside it must still lie wholly on the screen.
    const QRect screen = controller->screen()->availableGeometry();
    controller->move(screen.right() - controller->frameGeometry().width() - 8, screen.top() + 40);
    select(0);
    delegate.showBackupInfo();
    delegate.showBackupInfo();
    ASSERT_EQ(delegate.inspectorControllers().size(), 1u);
    InspectorWindowController* first = delegate.inspectorControllers().front().get();
    EXPECT_TRUE(first->isVisible());
    EXPECT_TRUE(screen.contains(first->frameGeometry())) << "left at " << first->frameGeometry().x();
    EXPECT_TRUE(reachedByTab(first).contains(first->showInFinderBtn()));
    QStringList names;
    for (const auto& entry : first->appContainers())
        names << entry.appName;
    names.sort();
    EXPECT_EQ(names, QStringList({QFile::decodeName("Caf\xe9"), "CloudDocs", "Notes"}));
    EXPECT_EQ(first->backupContentDescriptionLabel()->text(), text("formatStringBackupContent").arg("3", "4"))
        << "three containers, four files";
    EXPECT_TRUE(first->showInFinderBtn()->isEnabled());
    EXPECT_TRUE(first->compareBtn()->isEnabled()) << "the info window knows the iCloud folder";
    first->showInFinder();
    EXPECT_EQ(fileManager.selected, QStringList({*controller->backups().at(0)->backupFolder()}));
    first->showAppContainerInFinder();
    EXPECT_EQ(fileManager.selected.size(), 1) << "no row selected: nothing";

    // The inspector of a deleted backup says so.
    removeTree(backupFolder(1));
    select(1);
    delegate.showBackupInfo();
    ASSERT_EQ(delegate.inspectorControllers().size(), 2u);
    InspectorWindowController* second = delegate.inspectorControllers().back().get();
    EXPECT_EQ(second->backupSizeLabel()->text(), text("alertBackupNotFoundMessage"));
    EXPECT_FALSE(second->showInFinderBtn()->isEnabled());
    EXPECT_FALSE(second->compareBtn()->isEnabled());
    EXPECT_EQ(second->backupContentTable()->rowCount(), 0);
    EXPECT_EQ(second->backupContentDescriptionLabel()->text(),
              text("formatStringBackupContent").arg("0", "0"));

    QMenu* windowMenu = delegate.mainMenu()->windowMenu();
    emit windowMenu->aboutToShow();
    QStringList titles;
    for (QAction* item : windowMenu->actions())
        titles << item->text();
    const QString firstDate =
        QLocale().toString(QDateTime::fromSecsSinceEpoch(1700000000), QLocale::ShortFormat);
    const QString firstTitle = text("menuItemTitleBackup").arg(firstDate);
    EXPECT_TRUE(titles.contains(firstTitle)) << titles.join(" | ").toStdString();

    EXPECT_TRUE(screen.contains(second->frameGeometry())) << "left at " << second->frameGeometry().x();

    // Escape where the focus is, in the list of containers.
    QTest::keyClick(first->backupContentTable(), Qt::Key_Escape);
    EXPECT_EQ(delegate.inspectorControllers().size(), 1u) << "closed and forgotten";
    select(0);
    delegate.showBackupInfo();
    EXPECT_EQ(delegate.inspectorControllers().size(), 2u) << "a fresh inspector after the close";
}

TEST_F(AppDelegateTest, QuittingAsksOnlyDuringAnOperationAndOnlyWhenSomebodyCanAnswer)
{
    launch();
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_TRUE(alerts.shown.isEmpty()) << "idle, nothing is asked";

    controller->setICloudBeingRestored(true);
    EXPECT_TRUE(delegate.applicationShouldTerminate(false));
    EXPECT_TRUE(alerts.shown.isEmpty());
    EXPECT_FALSE(controller->operationProgressWindow()->cancelCopyingBtn()->isEnabled())
        << "cancelled, as Cancel would";

    alerts.answers = {AlertResponse{1000, false}};
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_EQ(alerts.messages(), QStringList({text("alertiCloudIsBeingRestoredMsg")}));
}

// The copy stops at its first file until the program quits.
TEST_F(AppDelegateTest, QuittingRemovesOnlyTheFolderTheRunUnderWayMadeOnceItsCopyHasStopped)
{
    writeFile(iCloud() / "com~apple~CloudDocs" / "f", "x");
    writeFile(iCloud() / "com~apple~CloudDocs" / "g", "y");
    launch();
    ASSERT_TRUE(runEventLoopUntil([&] { return !controller->isCalculatingiCloudSizeInProgress(); }));
    QSignalSpy finished(controller, &MainWindowController::backUpFinished);
    controller->backUpNow();
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() == 1; }));
    const QString recorded = *controller->backups().last()->backupFolder();

    // Waiting for an application to quit: the last finished backup's folder is no unfinished one.
    applications.add(42, QString("com.apple.CloudDocs"), "Drive");
    controller->backUpNow();
    ASSERT_TRUE(controller->isiCloudBackingUp());
    alerts.answers = {AlertResponse{1000, false}};
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_TRUE(QFileInfo(recorded).isDir());
    EXPECT_EQ(storedFolders(), QStringList({recorded}));
    controller->quitAppsController()->close();
    applications.remove(42);

    clock = clock.addSecs(1);
    std::atomic<bool> copierReturned = false;
    copierHook = [&](const std::atomic<bool>* abandon) {
        abandon->wait(false);
        copierReturned = true;
    };
    controller->backUpNow();
    ASSERT_TRUE(runEventLoopUntil([&] { return controller->currentCountOfCopiedItems() == 1; }));
    const fs::path unfinished = QFile::encodeName(controller->iCloudBackupDirectory()).toStdString();
    ASSERT_NE(QString::fromStdString(unfinished.string()), recorded) << "a new second";
    EXPECT_TRUE(fs::exists(UnfinishedMark::pathFor(unfinished)));

    alerts.answers = {AlertResponse{1001, false}};
    EXPECT_FALSE(delegate.applicationShouldTerminate());
    EXPECT_EQ(alerts.messages().last(), text("alertiCloudIsBeingBackedUpMsg"));
    EXPECT_TRUE(fs::exists(unfinished));

    alerts.answers = {AlertResponse{1000, false}};
    EXPECT_TRUE(delegate.applicationShouldTerminate());
    EXPECT_TRUE(copierReturned) << "the copier had left the folder before it went";
    EXPECT_FALSE(fs::exists(unfinished));
    EXPECT_FALSE(fs::exists(UnfinishedMark::pathFor(unfinished)));
    EXPECT_TRUE(QFileInfo(recorded).isDir());
    // The progress window, which Escape and its close button only cancel from, now goes with the program.
    OperationProgressWindow* progress = controller->operationProgressWindow();
    ASSERT_TRUE(progress->isVisible());
    EXPECT_TRUE(progress->close());
    progress->show();
    QTest::keyClick(progress, Qt::Key_Escape);
    EXPECT_FALSE(progress->isVisible());
}

TEST_F(AppDelegateTest, ASecondStartShowsTheHiddenMainWindow)
{
    launch();
    controller->close();
    ASSERT_FALSE(controller->isVisible());
    const QString folder = QString::fromStdString(home.path().string());
    const SingleInstance::Places places{folder + "/instance.lock", QString(), folder};
    SingleInstance first(places);
    ASSERT_EQ(first.claim(), SingleInstance::Claim::Launch);
    QObject::connect(&first, &SingleInstance::reopenRequested, &delegate,
                     [this] { delegate.applicationShouldHandleReopen(); });

    EXPECT_EQ(claimAsASecondStart(places), SingleInstance::Claim::HandedOver);
    EXPECT_TRUE(runEventLoopUntil([&] { return controller->isVisible(); }));
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
