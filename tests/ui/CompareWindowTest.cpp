// The info window compares its backup with the iCloud folder as it is now, off the main thread, and lists
// what a restore would send to the Trash, put back and copy back, without touching anything.
#include "engine/NotCopiedList.h"
#include "platform/ByteCountFormatter.h"
#include "support/EventLoop.h"
#include "support/QtPrinters.h"
#include "support/TestWorld.h"
#include "support/TreeBuilder.h"
#include "ui/inspector/CompareWindowController.h"
#include "ui/inspector/InspectorWindowController.h"

#include <cerrno>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QThreadPool>
#include <QTreeWidget>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class CompareWindowTest : public TestWorld {
protected:
    // Since the backup: two files and a folder added, one file changed, one removed. The backup could not
    // copy "locked.txt", so the live one is no change.
    void SetUp() override
    {
        const timespec then{1600000000, 0};
        writeItems(backup, {"Docs/same.txt=same", "Docs/notes.txt=old", "Docs/gone.txt=gone"}, then);
        writeItems(iCloud(),
                   {"Docs/same.txt=same", "Docs/notes.txt=newer", "Docs/new.txt=12345",
                    "Docs/Added folder/a.txt=abc", "Docs/caf\xe9.txt=x", "Docs/locked.txt=l"},
                   then);
        setTimes(iCloud() / "Docs/notes.txt", {then.tv_sec + 60, 0});
        ASSERT_FALSE(NotCopiedList::write(backup, {{"openat", "Docs/locked.txt", EACCES}}));
    }
    static QStringList itemsOf(const CompareWindowController& window, int group)
    {
        QStringList paths;
        const QTreeWidgetItem* heading = window.itemTree()->topLevelItem(group);
        for (int row = 0; heading && row < heading->childCount(); ++row)
            paths << heading->child(row)->text(0);
        return paths;
    }
    static QString heading(const CompareWindowController& window, int group)
    {
        const QTreeWidgetItem* item = window.itemTree()->topLevelItem(group);
        return item ? item->text(0) : QString();
    }
    // Every compare started has answered, and its answer has reached the main thread.
    static void deliverLateAnswers()
    {
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::processEvents();
    }

    fs::path backup = home.path() / "Backups" / "2020-09-13";
    BackupRecordRef record =
        BackupRecord::make(QDateTime::currentDateTime(), QString::fromStdString(backup.string()), 0);
};

TEST_F(CompareWindowTest, ListsWhatARestoreWouldTrashPutBackAndCopyBackAndTouchesNothing)
{
    const auto before = snapshot(iCloud());
    InspectorWindowController inspector(fileManager);
    inspector.showBackupInfo(record);
    EXPECT_FALSE(inspector.compareBtn()->isEnabled()) << "no iCloud folder to compare with yet";
    inspector.setMobileDocumentsDirectory(iCloudFolder());
    ASSERT_TRUE(inspector.compareBtn()->isEnabled());
    inspector.compareBtn()->click();
    CompareWindowController* window = inspector.compareWindow();
    ASSERT_TRUE(window);
    EXPECT_TRUE(window->isVisible()) << "open before the answer";
    EXPECT_TRUE(window->isComparing());
    EXPECT_EQ(window->statusLabel()->text(), text("labelComparing"));
    EXPECT_EQ(window->itemTree()->topLevelItemCount(), 0);

    ASSERT_TRUE(runEventLoopUntil([&] { return !window->isComparing(); }));
    EXPECT_EQ(window->statusLabel()->text(), text("labelCompareDone"));
    EXPECT_EQ(itemsOf(*window, CompareWindowController::Added),
              QStringList({"Docs/Added folder/", QFile::decodeName("Docs/caf\xe9.txt"), "Docs/new.txt"}));
    EXPECT_EQ(heading(*window, CompareWindowController::Added),
              text("formatStringCompareAdded")
                  .arg(text("formatStringItems").arg(3), ByteCountFormatter::stringFromByteCount(3 + 1 + 5)))
        << "a folder counts with everything in it";
    EXPECT_EQ(itemsOf(*window, CompareWindowController::Changed), QStringList({"Docs/notes.txt"}));
    EXPECT_EQ(itemsOf(*window, CompareWindowController::Removed), QStringList({"Docs/gone.txt"}));
    EXPECT_EQ(heading(*window, CompareWindowController::Removed),
              text("formatStringCompareRemoved")
                  .arg(text("labelOneItem"), ByteCountFormatter::stringFromByteCount(4)));
    EXPECT_EQ(snapshot(iCloud()), before);

    QTest::keyClick(window, Qt::Key_Escape);
    EXPECT_FALSE(window->isVisible());
}

TEST_F(CompareWindowTest, ABackupThatCannotBeReadIsSaidSoAndAMissingOneCannotBeCompared)
{
    CompareWindowController window;
    window.compare(iCloudFolder(), QString::fromStdString((home.path() / "nowhere").string()), "then");
    ASSERT_TRUE(runEventLoopUntil([&] { return !window.isComparing(); }));
    EXPECT_EQ(window.statusLabel()->text(), text("labelCompareBackupUnreadable"));
    EXPECT_EQ(window.itemTree()->topLevelItemCount(), 0);

    removeTree(backup);
    InspectorWindowController inspector(fileManager);
    inspector.setMobileDocumentsDirectory(iCloudFolder());
    inspector.showBackupInfo(record);
    EXPECT_FALSE(inspector.compareBtn()->isEnabled());
}

TEST_F(CompareWindowTest, AnAnswerThatComesBackAfterTheWindowClosedIsDropped)
{
    const QString live = iCloudFolder();
    const QString folder = *record->backupFolder();
    CompareWindowController window;
    window.compare(live, folder, "then");
    window.close();
    EXPECT_FALSE(window.isComparing());
    deliverLateAnswers();
    EXPECT_EQ(window.statusLabel()->text(), text("labelComparing"));
    EXPECT_EQ(window.itemTree()->topLevelItemCount(), 0);

    window.compare(live, folder, "then");
    EXPECT_TRUE(runEventLoopUntil([&] { return window.itemTree()->topLevelItemCount() == 3; }));

    auto* gone = new CompareWindowController;
    gone->compare(live, folder, "then");
    delete gone;
    deliverLateAnswers(); // to a window that no longer exists: dropped, not a crash
}

} // namespace
