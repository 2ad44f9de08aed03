#include "engine/DirectoryCopier.h"
#include "support/MainWindowFixture.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

#include <QProgressBar>
#include <QTableWidget>
#include <future>
#include <sys/mount.h>

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
    static std::vector<fs::path> entries(const fs::path& folder)
    {
        std::vector<fs::path> found;
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            found.push_back(entry.path().lexically_relative(folder));
        std::sort(found.begin(), found.end());
        return found;
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
    EXPECT_EQ(entries(folder), (std::vector<fs::path>{"com~apple~CloudDocs", "com~apple~CloudDocs/link",
                                                      "com~apple~CloudDocs/report.pages", "iCloud~com~example~Notes",
                                                      "iCloud~com~example~Notes/Documents",
                                                      "iCloud~com~example~Notes/Documents/note.txt"}));
    EXPECT_EQ(readFile(folder / "com~apple~CloudDocs" / "report.pages"), std::string(1200, 'x'));
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
    EXPECT_EQ(entries(folderOf(controller->backups().last())), std::vector<fs::path>{"com~apple~CloudDocs"});
}

TEST_F(BackUpNowTest, CancelDuringTheCountLeavesNothingBehindAndDuringTheCopyRemovesThePartialFolder)
{
    makeiCloudFolder();
    for (int i = 0; i < 20; ++i)
        writeFileOfSize(iCloud() / "com~apple~CloudDocs" / ("more-" + std::to_string(i)), 10);
    // The copy waits after its first file until the test has pressed Cancel.
    std::promise<void> cancelled;
    std::shared_future<void> pressed = cancelled.get_future().share();
    copier = [pressed](const fs::path& source, const fs::path& destination, const std::atomic<bool>& cancel,
                       const DirectoryCopier::Progress& progress, const std::atomic<bool>* abandon) {
        bool first = true;
        return DirectoryCopier::copyDirectoryAtPath(
            source, destination, cancel,
            [&](const fs::path& copied) {
                progress(copied);
                if (std::exchange(first, false))
                    pressed.wait();
            },
            abandon);
    };
    auto controller = openWindow();
    QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
    controller->backUpNow();
    ASSERT_TRUE(controller->operationProgressWindow()->isVisible());
    EXPECT_EQ(controller->operationInfoLabel()->text(), text("operationPreparingToCopyItems"));
    EXPECT_FALSE(controller->backUpNowBtn()->isEnabled());
    // The count runs in the background; its result is handled on this thread, after this cancel.
    controller->cancelCopying();
    EXPECT_FALSE(controller->cancelCopyingBtn()->isEnabled());
    EXPECT_EQ(controller->operationInfoLabel()->text(), text("operationCanceling"));
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() == 1; }));
    EXPECT_FALSE(fs::exists(home.dataHome() / "Pelmora"));
    EXPECT_EQ(controller->backups().count(), 0);
    expectIdle(*controller);

    controller->backUpNow();
    ASSERT_TRUE(runEventLoopUntil([&] { return controller->currentCountOfCopiedItems() == 1; }));
    EXPECT_EQ(controller->operationInfoLabel()->text(), text("operationCopyingDataFromiCloud"));
    EXPECT_GT(controller->copyingTotalProgressIndicator()->value(), 0);
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
    makeFolder(iCloud());
    if (::mount("tmpfs", iCloud().c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "big.bin", 700 * 1024);
    auto controller = openWindow();

    const bool ended = backUp(*controller);
    controller.reset();
    ::umount(iCloud().c_str());
    ASSERT_TRUE(ended);
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
    EXPECT_EQ(request->infoLabel()->text(), text("formatStringCloseApps").arg(text("btnTitleBackUpNow")));
    EXPECT_EQ(QuitAppsRequestWindowController::tagOf(request->backUpNowOrRestoreBtn()), 0);
    ASSERT_EQ(request->appsToQuitTable()->rowCount(), 2) << "listed once per container it uses";
    EXPECT_EQ(request->appsToQuitTable()->item(0, 0)->text(), "Notes");

    request->activateApp(-1);
    EXPECT_TRUE(applications.activated.isEmpty());
    request->activateApp(1);
    EXPECT_EQ(applications.activated, QList<pid_t>({42, 42})) << "a double click brings it forward twice";

    request->backUpNowOrRestoreBtn()->click();
    EXPECT_TRUE(request->isVisible()) << "the button only brings the window forward while Notes runs";
    EXPECT_EQ(finished.count(), 0);

    applications.remove(42);
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_FALSE(request->isVisible());
    EXPECT_EQ(request->checkAppsStateTimer(), nullptr);
    EXPECT_EQ(controller->backups().count(), 1);
}

TEST_F(QuitAppsTest, AnAppStartedMeanwhileKeepsTheRequestOpenUntilCancelOrClosingGivesTheBackupUp)
{
    applications.remove(42);
    applications.add(43, QString("com.example"), "Example Helper");
    ASSERT_TRUE(runEventLoopUntil([&] {
        return request->appsToQuit().size() == 2 && request->appsToQuit()[0].pid == 43;
    }));
    EXPECT_TRUE(request->isVisible());
    EXPECT_NE(request->checkAppsStateTimer(), nullptr);
    EXPECT_TRUE(controller->isiCloudBackingUp());

    request->cancelBtn()->click();
    EXPECT_FALSE(request->isVisible());
    EXPECT_FALSE(controller->isiCloudBackingUp());
    EXPECT_EQ(request->checkAppsStateTimer(), nullptr);

    controller->backUpNow();
    ASSERT_TRUE(request->isVisible());
    ASSERT_NE(request->checkAppsStateTimer(), nullptr);
    request->close();
    EXPECT_FALSE(controller->isiCloudBackingUp());
    EXPECT_EQ(request->checkAppsStateTimer(), nullptr);
    EXPECT_EQ(controller->backups().count(), 0);
}

} // namespace
