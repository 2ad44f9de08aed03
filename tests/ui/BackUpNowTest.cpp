#include "engine/DirectoryCopier.h"
#include "engine/NotCopiedList.h"
#include "engine/UnfinishedMark.h"
#include "platform/ByteCountFormatter.h"
#include "support/Keyboard.h"
#include "support/MainWindowFixture.h"
#include "support/PausingCopier.h"
#include "ui/inspector/InspectorWindowController.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

#include <future>
#include <QApplication>
#include <QKeyEvent>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QTableWidget>
#include <QTimer>
#include <QWindow>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class BackUpNowTest : public MainWindowFixture {
protected:
    void makeiCloudFolder()
    {
        writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "report.pages", 1200);
        writeFileOfSize(iCloud() / "com~apple~CloudDocs" / ".DS_Store", 6148);
        writeFileOfSize(iCloud() / "iCloud~com~example~Notes" / "Documents" / "note.txt", 300);
        makeSymlink("report.pages", iCloud() / "com~apple~CloudDocs" / "link");
    }
    Items backupRootEntries() const
    {
        return fs::exists(home.dataHome() / "Pelmora") ? contents(home.dataHome() / "Pelmora") : Items{};
    }

    // Whether a backup is under way, and what the window shows of it.
    static void expectIdle(MainWindowController& controller)
    {
        EXPECT_FALSE(controller.isiCloudBackingUp());
        EXPECT_FALSE(controller.operationProgressWindow()->isVisible());
        EXPECT_TRUE(controller.backUpNowBtn()->isEnabled());
    }
};

TEST_F(BackUpNowTest, CopiesTheiCloudFolderIntoADatedFolderAndRecordsItAndASecondInTheSameSecondSharesIt)
{
    makeiCloudFolder();
    const QDateTime start = QDateTime::currentDateTime();
    clock = [&] { return start; };
    auto controller = openWindow();

    ASSERT_TRUE(backUp(*controller));

    EXPECT_TRUE(alerts.shown.isEmpty()) << "no message on success";
    ASSERT_EQ(controller->backups().count(), 1);
    const BackupRecordRef record = controller->backups().last();
    const fs::path folder = folderOf(record);
    EXPECT_EQ(folder.parent_path(), home.dataHome() / "Pelmora");
    EXPECT_EQ(folder.filename().string(),
              QLocale().toString(record->backupDate()->toLocalTime(), "yyyy.MM.dd-HH.mm.ss").toStdString());
    EXPECT_EQ(record->backupSize(), 1200 + 300 + 12) << "the counted size, link included, no .DS_Store";
    EXPECT_EQ(contents(folder),
              (Items{"com~apple~CloudDocs=/", "com~apple~CloudDocs/link=-> report.pages",
                     "com~apple~CloudDocs/report.pages=" + std::string(1200, 'x'),
                     "iCloud~com~example~Notes=/", "iCloud~com~example~Notes/Documents=/",
                     "iCloud~com~example~Notes/Documents/note.txt=" + std::string(300, 'x')}));
    EXPECT_EQ(storedFolders(), QStringList({*record->backupFolder()}));
    expectIdle(*controller);
    EXPECT_TRUE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 3);
    EXPECT_EQ(controller->backupsTable()->model()->rowCount(), 1);
    EXPECT_TRUE(controller->lastBackupInfoLabel()->text().startsWith(text("labelLastBackup") + ":\n"));
    EXPECT_FALSE(controller->lastBackupInfoLabel()->text().endsWith(text("labelLastBackupDateNever")));

    ASSERT_TRUE(backUp(*controller));
    ASSERT_EQ(controller->backups().count(), 2);
    EXPECT_EQ(controller->backups().at(1)->backupDate(), record->backupDate());
    EXPECT_EQ(controller->backups().at(1)->backupFolder(), record->backupFolder());
}

TEST_F(BackUpNowTest, WithoutTheiCloudFolderOrItsDriveOnlyAnAlertButAnEmptyDriveMakesARecordOfZeroBytes)
{
    auto controller = openWindow();
    controller->backUpNow();
    EXPECT_EQ(alerts.messages(), QStringList({text("alertNotAvailableiCloudInYosemiteWarningMessage")}));

    writeFileOfSize(iCloud() / "iCloud~com~example~Notes" / "n", 1);
    controller->backUpNow();
    ASSERT_EQ(alerts.shown.size(), 2);
    const Alert& driveRequired = alerts.shown.last();
    EXPECT_EQ(driveRequired.messageText, text("alertiCloudDriveRequiredMessage"));
    EXPECT_TRUE(driveRequired.informativeText.isEmpty());
    ASSERT_EQ(driveRequired.buttons.size(), 1);
    EXPECT_EQ(driveRequired.buttons[0].title, Localizer::cancelButtonTitle());
    EXPECT_EQ(driveRequired.buttons[0].keyEquivalent, "\r");
    expectIdle(*controller);
    EXPECT_FALSE(fs::exists(home.dataHome() / "Pelmora"));

    removeTree(iCloud() / "iCloud~com~example~Notes");
    makeFolder(iCloud() / "com~apple~CloudDocs");
    const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
    ASSERT_TRUE(backUp(*controller));
    ASSERT_EQ(controller->backups().count(), 1);
    EXPECT_EQ(controller->backups().last()->backupSize(), 0);
    EXPECT_GE(controller->backups().last()->backupDate().value(), before) << "dated by the wall clock";
    EXPECT_EQ(contents(folderOf(controller->backups().last())), Items{"com~apple~CloudDocs=/"});
}

TEST_F(BackUpNowTest, CancelDuringTheCountLeavesNothingBehindAndDuringTheCopyRemovesThePartialFolder)
{
    makeiCloudFolder();
    for (int i = 0; i < 20; ++i)
        writeFileOfSize(iCloud() / "com~apple~CloudDocs" / ("more-" + std::to_string(i)), 10);
    // The copy waits after its first file until the test has pressed Cancel.
    std::promise<void> cancelled;
    std::shared_future<void> pressed = cancelled.get_future().share();
    copier = copierPausingAfterFirstFile([pressed](const std::atomic<bool>*) { pressed.wait(); });
    auto controller = openWindow();
    QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
    const OperationProgressWindow* progress = controller->operationProgressWindow();
    controller->backUpNow();
    ASSERT_TRUE(progress->isVisible());
    EXPECT_EQ(progress->operationInfoLabel()->text(), text("operationPreparingToCopyItems"));
    EXPECT_FALSE(controller->backUpNowBtn()->isEnabled());
    // The count runs in the background; its result is handled on this thread, after this cancel.
    controller->cancelCopying();
    EXPECT_FALSE(progress->cancelCopyingBtn()->isEnabled());
    EXPECT_EQ(progress->operationInfoLabel()->text(), text("operationCanceling"));
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() == 1; }));
    EXPECT_FALSE(fs::exists(home.dataHome() / "Pelmora"));
    EXPECT_EQ(controller->backups().count(), 0);
    expectIdle(*controller);

    controller->backUpNow();
    ASSERT_TRUE(runEventLoopUntil([&] { return controller->currentCountOfCopiedItems() == 1; }));
    EXPECT_EQ(progress->operationInfoLabel()->text(), text("operationCopyingDataFromiCloud"));
    EXPECT_GT(progress->copyingTotalProgressIndicator()->value(), 0);
    EXPECT_EQ(progress->copyCountsLabel()->text(),
              text("formatStringCopyProgress")
                  .arg("1", "23",
                       ByteCountFormatter::stringFromByteCount(controller->currentSizeOfCopiedItems()),
                       ByteCountFormatter::stringFromByteCount(1712)));
    const BackupOperation* run = controller->backUpRun();
    controller->backUpNow();
    EXPECT_EQ(controller->backUpRun(), run) << "a second Back Up while one runs does nothing";
    const QString folder = controller->iCloudBackupDirectory();
    EXPECT_TRUE(QFileInfo(folder).isDir());
    controller->cancelCopying();
    cancelled.set_value();
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() == 2; }));
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_EQ(controller->backups().count(), 0);
    EXPECT_LT(controller->currentCountOfCopiedItems(), 24);
    expectIdle(*controller);
}

TEST_F(BackUpNowTest, AFolderLargerThanTheFreeSpaceOnItsOwnVolumeStopsWithTheBackupTextBeforeAnyCopy)
{
    // The iCloud folder on a volume of 1 MiB holding 700 KiB: less is free than the folder holds.
    if (!mountSmallVolume(iCloud(), "1m"))
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "big.bin", 700 * 1024);
    auto controller = openWindow();

    ASSERT_TRUE(backUp(*controller));
    ASSERT_EQ(alerts.shown.size(), 1);
    EXPECT_EQ(alerts.shown[0].informativeText, text("alertNotEnoughDiskSpaceToBackUpInfo"));
    EXPECT_TRUE(storedFolders().isEmpty());
    EXPECT_FALSE(fs::exists(home.dataHome() / "Pelmora")) << "no backup folder is made";
}

TEST_F(BackUpNowTest, ASandboxedStartWithoutAHomeAsksForItFirst)
{
    makeiCloudFolder();
    homeDirectory.reset();
    auto controller = openWindow();

    chooser.answer = QStringLiteral("/tmp");
    controller->backUpNow();
    EXPECT_EQ(alerts.messages(), QStringList({text("alertBadDirectoryWarningMessage")}));
    EXPECT_FALSE(homeDirectory.has_value());
    EXPECT_EQ(chooser.titles, QStringList({text("openPanelTitle")}));

    chooser.answer = QString::fromStdString(home.path().string());
    ASSERT_TRUE(backUp(*controller));
    EXPECT_EQ(homeDirectory, chooser.answer);
    EXPECT_TRUE(defaults.dataForKey(iCloudPrefs::kHomeDirBookmarkDataKey).has_value());
    EXPECT_EQ(controller->backups().count(), 1);
}

TEST_F(BackUpNowTest, ItemsThatCannotBeCopiedAreListedBesideTheRecordedBackupSaidOnceAndShownInItsInfoWindow)
{
    makeiCloudFolder();
    makeSocket(iCloud() / "com~apple~CloudDocs" / "agent.sock");
    int second = 0;
    clock = [&] { return QDateTime::currentDateTime().addSecs(++second * 2); };
    auto controller = openWindow();

    ASSERT_TRUE(backUp(*controller));

    ASSERT_EQ(controller->backups().count(), 1) << "recorded all the same";
    const fs::path folder = folderOf(controller->backups().last());
    EXPECT_TRUE(fs::exists(folder / "com~apple~CloudDocs" / "report.pages"));
    ASSERT_EQ(alerts.shown.size(), 1);
    EXPECT_EQ(alerts.shown[0].messageText, text("alertOneItemNotCopiedMessage"));
    EXPECT_TRUE(alerts.shown[0].detailedText.startsWith("com~apple~CloudDocs/agent.sock: "))
        << alerts.shown[0].detailedText.toStdString();
    // The info window reads the list that lies beside the folder.
    InspectorWindowController inspector(fileManager);
    inspector.showBackupInfo(controller->backups().last());
    EXPECT_TRUE(inspector.notCopiedLabel()->isVisible());
    EXPECT_EQ(inspector.notCopiedLabel()->text(), text("labelOneItemNotCopied"));
    EXPECT_EQ(inspector.notCopiedList()->toPlainText(), alerts.shown[0].detailedText);

    fs::remove(iCloud() / "com~apple~CloudDocs" / "agent.sock");
    ASSERT_TRUE(backUp(*controller));
    EXPECT_EQ(alerts.shown.size(), 1u) << "a complete backup ends in silence";
    inspector.showBackupInfo(controller->backups().last());
    EXPECT_FALSE(inspector.notCopiedLabel()->isVisible());
    EXPECT_FALSE(fs::exists(NotCopiedList::pathFor(folderOf(controller->backups().last()))));
}

// The backup root on a volume of 1 MiB: 600 KiB are counted, but 300 files of 2 KiB take a block of 4 KiB
// each, so the volume fills during the copy.
TEST_F(BackUpNowTest, AFullDiskDuringTheCopyStopsItWithTheSpaceAlertAndLeavesNothing)
{
    if (!mountSmallVolume(home.dataHome() / "Pelmora", "1m"))
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    for (int i = 0; i < 300; ++i)
        writeFileOfSize(iCloud() / "com~apple~CloudDocs" / ("f" + std::to_string(i)), 2048);
    auto controller = openWindow();

    ASSERT_TRUE(backUp(*controller));
    EXPECT_EQ(alerts.messages(), QStringList({text("alertNotEnoughDiskSpaceWarningMessage")}));
    EXPECT_GT(controller->currentCountOfCopiedItems(), 0) << "stopped during the copy";
    EXPECT_LT(controller->currentCountOfCopiedItems(), 300);
    EXPECT_TRUE(backupRootEntries().empty()) << "neither folder nor mark nor list is left";
    EXPECT_EQ(controller->backups().count(), 0);
    EXPECT_TRUE(storedFolders().isEmpty());
    expectIdle(*controller);
}

TEST_F(BackUpNowTest, AtLaunchAMarkedFolderThatNoRecordNamesIsRemovedAndARecordedOneOnlyLosesItsMark)
{
    makeiCloudFolder();
    const fs::path root = home.dataHome() / "Pelmora";
    writeItems(root, {"2026.01.01-10.00.00/com~apple~CloudDocs/half=x",
                      "2026.01.02-10.00.00/com~apple~CloudDocs/whole=x", "2026.01.03-10.00.00/unmarked=x"});
    ASSERT_FALSE(UnfinishedMark::set(root / "2026.01.01-10.00.00"));
    ASSERT_FALSE(UnfinishedMark::set(root / "2026.01.02-10.00.00"));
    storeBackups({BackupRecord::make(QDateTime::currentDateTime(),
                                     QString::fromStdString((root / "2026.01.02-10.00.00").string()), 1)});

    auto controller = openWindow();
    // The sweep runs in the background; the marks go last.
    ASSERT_TRUE(runEventLoopUntil([&] { return UnfinishedMark::markedFolders(root).empty(); }));
    EXPECT_EQ(backupRootEntries(),
              (Items{"2026.01.02-10.00.00=/", "2026.01.02-10.00.00/com~apple~CloudDocs=/",
                     "2026.01.02-10.00.00/com~apple~CloudDocs/whole=x", "2026.01.03-10.00.00=/",
                     "2026.01.03-10.00.00/unmarked=x"}))
        << "an unmarked folder is nobody's business at launch";
    EXPECT_EQ(controller->backups().count(), 1);
}

// Notes runs and uses two containers; the backup has asked it to quit.
class QuitAppsTest : public BackUpNowTest {
protected:
    void SetUp() override
    {
        makeiCloudFolder();
        makeFolder(iCloud() / "com~example~Notes~Shared");
        applications.add(42, QString("com.example.Notes"), "Notes");
        controller = openWindow();
        controller->backUpNow();
        request = controller->quitAppsController();
        ASSERT_NE(request, nullptr);
    }

    std::unique_ptr<MainWindowController> controller;
    QuitAppsRequestWindowController* request = nullptr;
};

TEST_F(QuitAppsTest, ABackupWaitsForTheAppsThatUseiCloudAndGoesOnWhenTheyQuit)
{
    QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
    EXPECT_TRUE(request->isVisible());
    EXPECT_TRUE(controller->isiCloudBackingUp());
    EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    EXPECT_EQ(request->windowTitle(), text("windowTitleCloseAppsBeforeBackUp"));
    EXPECT_EQ(request->backUpNowOrRestoreBtn()->text(), text("btnTitleBackUpNow"));
    EXPECT_EQ(request->infoLabel()->text(), text("formatStringCloseApps").arg("Back Up Now"))
        << "no access key";
    ASSERT_EQ(request->appsToQuitTable()->rowCount(), 2) << "listed once per container it uses";
    EXPECT_EQ(request->appsToQuitTable()->item(0, 0)->text(), "Notes");
    const QSet<QWidget*> reached = reachedByTab(request);
    EXPECT_TRUE(reached.contains(request->cancelBtn()) && reached.contains(request->backUpNowOrRestoreBtn()));

    request->activateApp(-1);
    EXPECT_TRUE(applications.activated.isEmpty());
    request->activateApp(1);
    EXPECT_EQ(applications.activated, QList<pid_t>({42, 42})) << "a double click brings it forward twice";

    request->backUpNowOrRestoreBtn()->click();
    EXPECT_TRUE(request->isVisible()) << "the button only brings the window forward while Notes runs";

    // Notes quits, but an app that uses iCloud too has started meanwhile: the backup waits for it.
    applications.remove(42);
    applications.add(43, QString("com.example"), "Example Helper");
    ASSERT_TRUE(runEventLoopUntil(
        [&] { return request->appsToQuit().size() == 2 && request->appsToQuit()[0].pid == 43; }));
    EXPECT_TRUE(request->isVisible());
    EXPECT_EQ(finished.count(), 0);
    applications.remove(43);
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_FALSE(request->isVisible());
    EXPECT_EQ(request->checkAppsStateTimer(), nullptr);
    EXPECT_EQ(controller->backups().count(), 1);
}

// Cancel, close(), Escape where the keyboard focus sits when the window opens (the table passes it on to the
// window) and the title bar's close button (a close request from the window system) each give the backup
// up, and it does not start when the apps quit later.
TEST_F(QuitAppsTest, EveryWayOfClosingTheRequestGivesTheBackupUp)
{
    QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    const std::pair<const char*, std::function<void()>> ways[] = {
        {"Cancel", [&] { request->cancelBtn()->click(); }},
        {"close()", [&] { request->close(); }},
        {"Escape", [&] { QCoreApplication::sendEvent(request->appsToQuitTable(), &escape); }},
        {"the close button", [&] { EXPECT_TRUE(request->windowHandle()->close()); }},
    };
    for (const auto& [way, close] : ways) {
        SCOPED_TRACE(way);
        if (!request->isVisible()) {
            applications.add(42, QString("com.example.Notes"), "Notes");
            controller->backUpNow();
        }
        ASSERT_TRUE(request->isVisible());
        ASSERT_NE(request->checkAppsStateTimer(), nullptr);
        close();
        EXPECT_FALSE(request->isVisible());
        EXPECT_FALSE(controller->isiCloudBackingUp());
        EXPECT_EQ(request->checkAppsStateTimer(), nullptr);
        applications.remove(42);
        const auto started = [&] { return controller->isiCloudBackingUp() || finished.count() > 0; };
        EXPECT_FALSE(runEventLoopUntil(started, 300)) << "nothing starts once Notes has quit";
        EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    }
    EXPECT_EQ(controller->backups().count(), 0);
}

TEST_F(QuitAppsTest, TheCheckLeavesTheBackupWaitingWhileAModalWindowIsUpAndStartsItOnceItHasClosed)
{
    QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
    QDialog alert(controller.get());
    alert.setModal(true);
    alert.show();
    ASSERT_EQ(QApplication::activeModalWidget(), &alert);

    applications.remove(42);
    ASSERT_NE(request->checkAppsStateTimer(), nullptr);
    QSignalSpy ticks(request->checkAppsStateTimer(), &QTimer::timeout);
    ASSERT_TRUE(runEventLoopUntil([&] { return ticks.count() >= 3; }));
    EXPECT_EQ(finished.count(), 0);
    EXPECT_TRUE(request->isVisible()) << "still waiting, though Notes is gone";
    EXPECT_NE(request->checkAppsStateTimer(), nullptr) << "and still checking";
    EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    EXPECT_TRUE(controller->isiCloudBackingUp());

    alert.close();
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_FALSE(request->isVisible());
    EXPECT_EQ(controller->backups().count(), 1);
}

} // namespace
