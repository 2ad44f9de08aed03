#include "engine/NotCopiedList.h"
#include "support/MainWindowFixture.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

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

    fs::path trash() const { return home.dataHome() / "Trash"; }
    // Where the Trash's record of `entry` says it came from.
    std::string trashedFrom(const std::string& entry) const
    {
        return trashedOriginal(trash() / "info" / (entry + ".trashinfo"));
    }
    // The live folder on a small volume of its own, empty but for iCloud Drive.
    bool moveLiveOntoSmallVolume(const char* size)
    {
        if (!mountSmallVolume(iCloud(), size))
            return false;
        makeFolder(iCloud() / "com~apple~CloudDocs");
        return true;
    }
    bool restore()
    {
        QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);
        controller->restoreFromBackup();
        return runEventLoopUntil([&] { return finished.count() > 0; }, 20000);
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
    EXPECT_EQ(request->windowTitle(), text("windowTitleCloseAppsBeforeRestore"));

    applications.remove(7); // and the restore starts over from the checks
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_EQ(alerts.messages(), QStringList({text("alertRestoreWarningMessage")}))
        << "no message at the end";
    EXPECT_EQ(readFile(letter), "original letter");
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "Photos" / "cat.jpg"), "meow");
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "new.txt"));
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / ".hidden-state"), "keep me");
    EXPECT_EQ(readFile(trash() / "files" / "letter.txt"), "edited later")
        << "what the restore replaced is in the Trash";
    EXPECT_EQ(trashedFrom("letter.txt"), letter.native());
    EXPECT_EQ(readFile(trash() / "files" / "new.txt"), "added later");
    EXPECT_EQ(trashedFrom("new.txt"), (iCloud() / "com~apple~CloudDocs" / "new.txt").native());
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
    if (!moveLiveOntoSmallVolume("1m"))
        GTEST_SKIP() << "cannot mount a small tmpfs here";

    ASSERT_TRUE(restore());
    ASSERT_FALSE(alerts.shown.isEmpty());
    EXPECT_EQ(alerts.shown.last().informativeText, text("alertNotEnoughDiskSpaceToRestoreInfo"));
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 0);
}

TEST_F(RestoreTest, WhatTheBackupNeverHeldStaysAndABackupGoneBeforeThePruningTouchesNothing)
{
    // The backup lists the notes container's note as not copied: the backup never held it.
    ASSERT_FALSE(
        NotCopiedList::write(backupFolder(), {FsError{"open", "iCloud~com~example~Notes/note.txt", EACCES}}));
    fs::remove(backupFolder() / "iCloud~com~example~Notes" / "note.txt");
    writeFile(iCloud() / "iCloud~com~example~Notes" / "note.txt", "newer note");
    ASSERT_TRUE(restore());
    EXPECT_EQ(readFile(iCloud() / "iCloud~com~example~Notes" / "note.txt"), "newer note");
    EXPECT_EQ(alerts.messages(), QStringList({text("alertRestoreWarningMessage")}))
        << "everything done: silent";

    // Gone between the question and the pruning, as if a drive went away.
    const fs::path moved = home.path() / "moved-backup";
    const fs::path folder = backupFolder();
    alerts.onShow = [&](const Alert& alert) {
        if (alert.messageText == text("alertRestoreWarningMessage"))
            fs::rename(folder, moved);
    };
    writeFile(letter, "edited later");
    ASSERT_TRUE(restore());
    EXPECT_EQ(alerts.messages().last(), text("alertBackupNotFoundMessage"));
    EXPECT_EQ(readFile(letter), "edited later");
    EXPECT_EQ(readFile(iCloud() / "iCloud~com~example~Notes" / "note.txt"), "newer note");
    EXPECT_FALSE(fs::exists(trash() / "files" / "letter.txt"));
    expectNotRestoring();
}

TEST_F(RestoreTest, AFullDiskStopsTheCopyAndWhatCouldNotBeDoneIsSaidWithItsItems)
{
    for (int i = 0; i < 300; ++i)
        writeFileOfSize(backupFolder() / "com~apple~CloudDocs" / "Mail" / ("m" + std::to_string(i)), 2048);
    if (!moveLiveOntoSmallVolume("1m"))
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    // No trash may be made on this volume, so what the pruning takes goes for good.
    writeFile(iCloud() / ".Trash-0", "in the way");
    writeFile(iCloud() / "com~apple~CloudDocs" / "stray.txt", "not in the backup");

    ASSERT_TRUE(restore());
    ASSERT_EQ(alerts.shown.size(), 2);
    const Alert& notice = alerts.shown[1];
    EXPECT_EQ(notice.messageText, text("alertRestoreIncompleteMessage"));
    EXPECT_TRUE(notice.informativeText.startsWith(text("alertRestoreDiskFullInfo")))
        << notice.informativeText.toStdString();
    EXPECT_TRUE(notice.informativeText.contains(text("formatStringRestoreRemovedForGood").arg("1")));
    EXPECT_TRUE(notice.detailedText.contains("com~apple~CloudDocs/stray.txt"))
        << notice.detailedText.toStdString();
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "stray.txt"));
    EXPECT_GT(controller->currentCountOfCopiedItems(), 0);
    EXPECT_LT(controller->currentCountOfCopiedItems(), controller->totalCountOfItemsToCopy()) << "stopped";
    expectNotRestoring();
}

} // namespace
