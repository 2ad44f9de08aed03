#include "support/MainWindowFixture.h"
#include "support/TreeBuilder.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"

#include <QPushButton>
#include <QSignalSpy>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "support/QtPrinters.h"

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class RestoreTest : public MainWindowFixture {
protected:
    RestoreTest()
    {
        writeFile(iCloud() / "com~apple~CloudDocs" / "letter.txt", "original letter");
        writeFile(iCloud() / "com~apple~CloudDocs" / "Photos" / "cat.jpg", "meow");
        writeFile(iCloud() / "iCloud~com~example~Notes" / "note.txt", "note");
    }

    // A window with one backup of the live folder as it is now, selected.
    std::unique_ptr<MainWindowController> openWithBackup()
    {
        auto controller = openWindow();
        waitForSize(*controller);
        QSignalSpy finished(controller.get(), &MainWindowController::backUpFinished);
        controller->backUpNow();
        EXPECT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
        controller->backupsTable()->selectRow(0);
        return controller;
    }
    static bool restore(MainWindowController& controller)
    {
        QSignalSpy finished(&controller, &MainWindowController::restoreFinished);
        controller.restoreFromBackup();
        return runEventLoopUntil([&] { return finished.count() > 0; }, 20000);
    }
    fs::path backupFolder(MainWindowController& controller) const
    {
        return QFile::encodeName(*controller.backups().at(0)->backupFolder()).toStdString();
    }
};

TEST_F(RestoreTest, BringsBackTheBackupAndLeavesHiddenItemsAlone)
{
    auto controller = openWithBackup();
    writeFile(iCloud() / "com~apple~CloudDocs" / "letter.txt", "edited later");
    writeFile(iCloud() / "com~apple~CloudDocs" / "new.txt", "added later");
    removeTree(iCloud() / "com~apple~CloudDocs" / "Photos");
    writeFile(iCloud() / "com~apple~CloudDocs" / ".hidden-state", "keep me");
    alerts.shown.clear();

    ASSERT_TRUE(restore(*controller));

    EXPECT_EQ(alerts.messages(), QStringList({text("alertRestoreWarningMessage")})) << "no message at the end";
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "letter.txt"), "original letter");
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "Photos" / "cat.jpg"), "meow");
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "new.txt"));
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / ".hidden-state"), "keep me");
    EXPECT_EQ(controller->totalCountOfItemsToCopy(), 2) << "the edited letter and the removed photo";
    EXPECT_EQ(controller->iCloudBackupDirectory(), QFile::decodeName(backupFolder(*controller).c_str()));
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    EXPECT_TRUE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->backUpNowBtn()->isEnabled());
}

TEST_F(RestoreTest, ChecksComeFirstAndANoChangesNothing)
{
    auto controller = openWithBackup();
    controller->backupsTable()->clearSelection();
    alerts.shown.clear();
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages(), QStringList({text("alertNoBackupSelectedWarningMessage")}));

    controller->backupsTable()->selectRow(0);
    const fs::path folder = backupFolder(*controller);
    fs::rename(folder, folder.string() + "-moved");
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages().last(), text("alertBackupNotFoundMessage"));
    fs::rename(folder.string() + "-moved", folder);

    writeFile(iCloud() / "com~apple~CloudDocs" / "letter.txt", "edited later");
    alerts.answers = {AlertResponse{1001, false}};
    controller->restoreFromBackup();
    EXPECT_EQ(alerts.messages().last(), text("alertRestoreWarningMessage"));
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "letter.txt"), "edited later");
}

TEST_F(RestoreTest, WaitsForAppsThatUseiCloudThenStartsOverFromTheChecks)
{
    auto controller = openWithBackup();
    writeFile(iCloud() / "com~apple~CloudDocs" / "letter.txt", "edited later");
    applications.add(7, QString("com.example.Notes"), "Notes");
    alerts.shown.clear();
    QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);

    controller->restoreFromBackup();
    QuitAppsRequestWindowController* request = controller->quitAppsController();
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(request->isVisible());
    EXPECT_TRUE(alerts.shown.isEmpty()) << "no confirmation while apps use iCloud";
    EXPECT_TRUE(controller->isiCloudBeingRestored());
    EXPECT_EQ(QuitAppsRequestWindowController::tagOf(request->backUpNowOrRestoreBtn()), 1);
    EXPECT_EQ(request->windowTitle(), text("windowTitleCloseAppsBeforeRestore"));

    applications.remove(7);
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_EQ(alerts.messages(), QStringList({text("alertRestoreWarningMessage")}));
    EXPECT_EQ(readFile(iCloud() / "com~apple~CloudDocs" / "letter.txt"), "original letter");
}

TEST_F(RestoreTest, ClosingTheAppsRequestGivesTheRestoreUp)
{
    auto controller = openWithBackup();
    applications.add(7, QString("com.example.Notes"), "Notes");
    controller->restoreFromBackup();
    controller->quitAppsController()->close();
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_FALSE(controller->isiCloudBackingUp());
}

TEST_F(RestoreTest, CancelDuringThePreparationCopiesNothingBack)
{
    auto controller = openWithBackup();
    removeTree(iCloud() / "com~apple~CloudDocs" / "Photos");
    QSignalSpy finished(controller.get(), &MainWindowController::restoreFinished);
    controller->restoreFromBackup();
    controller->cancelCopying(); // before the preparation's result reaches this thread
    ASSERT_TRUE(runEventLoopUntil([&] { return finished.count() > 0; }));
    EXPECT_FALSE(fs::exists(iCloud() / "com~apple~CloudDocs" / "Photos"));
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 0);
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_FALSE(controller->operationProgressWindow()->isVisible());
}

TEST_F(RestoreTest, TooLittleSpaceAfterPruningStopsWithTheRestoreText)
{
    auto controller = openWithBackup();
    writeFileOfSize(backupFolder(*controller) / "com~apple~CloudDocs" / "big.bin", 3 * 1024 * 1024);
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
    alerts.shown.clear();

    const bool finished = restore(*controller);
    const QStringList informative = [&] {
        QStringList texts;
        for (const Alert& alert : alerts.shown)
            texts << alert.informativeText;
        return texts;
    }();
    ::umount(live.c_str());
    ASSERT_TRUE(finished);
    EXPECT_EQ(informative.last(), text("alertNotEnoughDiskSpaceToRestoreInfo"));
    EXPECT_FALSE(controller->isiCloudBeingRestored());
    EXPECT_EQ(controller->currentCountOfCopiedItems(), 0);
}

} // namespace
