#include "support/MainWindowFixture.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// A window with one backup of the live folder, selected; later edits make the live folder differ from it.
class RestoreTest : public MainWindowFixture {
protected:
    void SetUp() override
    {
        writeFile(letter, "original letter");
        writeFile(iCloud() / "com~apple~CloudDocs" / "Photos" / "cat.jpg", "meow");
        writeFile(iCloud() / "iCloud~com~example~Notes" / "note.txt", "note");
        controller = openWindow();
        ASSERT_TRUE(backUp(*controller));
        controller->backupsTable()->selectRow(0);
        alerts.shown.clear();
    }
    fs::path backupFolder() const { return folderOf(controller->backups().at(0)); }
    void expectNotRestoring() const
    {
        EXPECT_FALSE(controller->isiCloudBeingRestored());
        EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    }

    const fs::path letter = iCloud() / "com~apple~CloudDocs" / "letter.txt";
    std::unique_ptr<MainWindowController> controller;
};

TEST_F(RestoreTest, ChecksComeFirstAndANoOrClosingTheAppsRequestChangesNothing)
{
    controller->backupsTable()->clearSelection();
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages(), QStringList({text("alertNoBackupSelectedWarningMessage")}));

    controller->backupsTable()->selectRow(0);
    const fs::path folder = backupFolder();
    fs::rename(folder, folder.string() + "-moved");
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages().last(), text("alertBackupNotFoundMessage"));
    fs::rename(folder.string() + "-moved", folder);

    writeFile(letter, "edited later");
    alerts.answers = {AlertResponse{1001, false}};
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages().last(), text("alertRestoreWarningMessage"));
    expectNotRestoring();

    applications.add(7, QString("com.example.Notes"), "Notes");
    controller->restoreFromBackup();
    controller->quitAppsController()->close();
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_FALSE(controller->isiCloudBackingUp());
    EXPECT_EQ(readFile(letter), "edited later");
}

TEST_F(RestoreTest, WaitsForAppsThatUseiCloudThenBringsBackTheBackupAndLeavesHiddenItemsAlone)
{
    writeFile(letter, "edited later");
    writeFile(iCloud() / "com~apple~CloudDocs" / "new.txt", "added later");
    removeTree(iCloud() / "com~apple~CloudDocs" / "Photos");
    writeFile(iCloud() / "com~apple~CloudDocs" / ".hidden-state", "keep me");
    applications.add(7, QString("com.example.Notes"), "Notes");
    QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);

    controller->restoreFromBackup();
    QuitAppsRequestWindowController* request = controller->quitAppsController();
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(request->isVisible());
    EXPECT_TRUE(alerts.shown.isEmpty()) << "no confirmation while apps use iCloud";
    EXPECT_TRUE(controller->isiCloudBeingRestored());
    EXPECT_EQ(QuitAppsRequestWindowController::tagOf(request->backUpNowOrRestoreBtn()), 1);
    EXPECT_EQ(request->windowTitle(), text("windowTitleCloseAppsBeforeRestore"));

    applications.remove(7); // and the restore starts over from the checks
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_EQ(alerts.messages(), QStringList({text("alertRestoreWarningMessage")})) << "no message at the end";
    EXPECT_EQ(readFile(letter), "original letter");
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "Photos" / "cat.jpg"), "meow");
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "new.txt"));
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / ".hidden-state"), "keep me");
    EXPECT_EQ(controller->totalCountOfItemsToCopy(), 2) << "the edited letter and the removed photo";
    EXPECT_EQ(controller->iCloudBackupDirectory(), QFile::decodeName(backupFolder().c_str()));
    expectNotRestoring();
    EXPECT_TRUE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->backUpNowBtn()->isEnabled());
}

TEST_F(RestoreTest, CancelDuringThePreparationCopiesNothingBack)
{
    removeTree(iCloud() / "com~apple~CloudDocs" / "Photos");
    QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);
    controller->restoreFromBackup();
    controller->cancelCopying(); // before the preparation's result reaches this thread
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "Photos"));
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 0);
    expectNotRestoring();
}

TEST_F(RestoreTest, TooLittleSpaceAfterPruningStopsWithTheRestoreText)
{
    writeFileOfSize(backupFolder() / "com~apple~CloudDocs" / "big.bin", 3 * 1024 * 1024);
    // The live folder on a volume of 1 MiB: the 3 MiB file cannot come back.
    const fs::path live = iCloud();
    const fs::path keep = home.path() / "live-before";
    fs::rename(live, keep);
    makeFolder(live);
    if (::mount("tmpfs", live.c_str(), "tmpfs", 0, "size=1m") != 0) {
        fs::remove(live);
        fs::rename(keep, live);
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    }
    makeFolder(live / "com~apple~CloudDocs");

    QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);
    controller->restoreFromBackup();
    const bool ended = runEventLoopUntil([&] { return finished.count() > 0; }, 20000);
    ::umount(live.c_str());
    ASSERT_TRUE(ended);
    ASSERT_FALSE(alerts.shown.isEmpty());
    EXPECT_EQ(alerts.shown.last().informativeText, text("alertNotEnoughDiskSpaceToRestoreInfo"));
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 0);
}

} // namespace
