#include "engine/NotCopiedList.h"
#include "support/MainWindowFixture.h"

#include <cerrno>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// Two backups whose folders exist, the second one selected.
class DeleteAndRevealTest : public MainWindowFixture {
protected:
    void SetUp() override
    {
        QList<BackupRecordRef> records;
        for (const char* name : {"2026.01.01-10.00.00", "2026.02.01-10.00.00"}) {
            const fs::path folder = home.dataHome() / "Pelmora" / name;
            writeFile(folder / "com~apple~CloudDocs" / "f", "x");
            records << BackupRecord::make(QDateTime::currentDateTime(),
                                          QString::fromStdString(folder.string()), 1);
        }
        storeBackups(records);
        controller = openWindow();
        controller->backupsTable()->selectRow(1);
    }
    fs::path folderOf(int row) const { return MainWindowFixture::folderOf(controller->backups().at(row)); }

    std::unique_ptr<MainWindowController> controller;
};

TEST_F(DeleteAndRevealTest, YesRemovesTheFolderAndTheRecordAndAGoneFolderIsDroppedSilently)
{
    const fs::path second = folderOf(1);
    const QString first = *controller->backups().at(0)->backupFolder();
    ASSERT_FALSE(NotCopiedList::write(second, {FsError{"openat", "com~apple~CloudDocs/locked", EACCES}}));

    controller->deleteBackup();
    EXPECT_EQ(alerts.messages(), QStringList({text("alertDeleteBackupMessage")}));
    EXPECT_FALSE(fs::exists(second));
    EXPECT_FALSE(fs::exists(NotCopiedList::pathFor(second))) << "its list of what it lacked goes with it";
    EXPECT_EQ(controller->backups().count(), 1);
    EXPECT_EQ(storedFolders(), QStringList({first}));
    EXPECT_EQ(controller->backupsTable()->model()->rowCount(), 1);

    controller->backupsTable()->selectRow(0);
    removeTree(folderOf(0));
    controller->deleteBackup();
    EXPECT_EQ(controller->backups().count(), 0);
    EXPECT_EQ(alerts.messages(), QStringList(2, text("alertDeleteBackupMessage")))
        << "only the confirmations";
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(),
              text("labelLastBackup") + ":\n" + text("labelLastBackupDateNever"));
    EXPECT_FALSE(controller->deleteBackupBtn()->isEnabled());
    EXPECT_FALSE(controller->showInFinderBtn()->isEnabled());
    EXPECT_FALSE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->tableViewPlaceholderLabel()->isVisible());
}

// Records as hand-edited preferences could hold them: Delete must not take any of them at its word.
TEST_F(DeleteAndRevealTest, OnlyABackupFolderOfTheRootIsRemovedAndOneLeftPartlyKeepsItsRecord)
{
    const fs::path root = home.dataHome() / "Pelmora";
    const fs::path outside = home.path() / "Documents" / "2026.03.01-10.00.00";
    writeFile(outside / "keep.txt", "mine");
    writeFile(root / "notes" / "keep.txt", "mine");
    makeSymlink(outside.string(), root / "2026.04.01-10.00.00");
    QList<BackupRecordRef> records = controller->backups().records();
    for (const fs::path& folder : {outside, root / "notes", root / "2026.04.01-10.00.00"})
        records << BackupRecord::make(QDateTime::currentDateTime(), QString::fromStdString(folder.string()),
                                      1);
    storeBackups(records);
    controller = openWindow();
    for (int row = 2; row < 5; ++row) {
        controller->backupsTable()->selectRow(row);
        alerts.shown.clear();
        controller->deleteBackup();
        EXPECT_EQ(alerts.messages(),
                  QStringList({text("alertDeleteBackupMessage"), text("alertBackupNotFoundMessage")}))
            << row;
        EXPECT_EQ(controller->backups().count(), 5) << row;
    }
    EXPECT_EQ(readFile(outside / "keep.txt"), "mine");
    EXPECT_EQ(readFile(root / "notes" / "keep.txt"), "mine");
    EXPECT_TRUE(fs::is_symlink(root / "2026.04.01-10.00.00"));

    // A volume mounted inside the backup cannot be removed with it.
    const fs::path partly = folderOf(1);
    if (!mountSmallVolume(partly / "mounted", "1m"))
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    writeFile(partly / "mounted" / "inside.txt", "x");
    controller->backupsTable()->selectRow(1);
    alerts.shown.clear();
    const QString partlyFolder = *controller->backups().at(1)->backupFolder();
    controller->deleteBackup();
    ASSERT_EQ(alerts.shown.size(), 2);
    EXPECT_EQ(alerts.shown[1].messageText, text("alertBackupNotRemovedMessage"));
    EXPECT_TRUE(alerts.shown[1].informativeText.contains(partlyFolder))
        << alerts.shown[1].informativeText.toStdString();
    EXPECT_TRUE(fs::exists(partly));
    EXPECT_EQ(controller->backups().at(1)->backupFolder(), partlyFolder)
        << "the record stays with what is left";
}

TEST_F(DeleteAndRevealTest, RevealShowsTheSelectedFolderOrSaysItIsGone)
{
    controller->backupsTable()->clearSelection();
    controller->deleteBackup();
    controller->showInFinder();
    EXPECT_TRUE(alerts.shown.isEmpty()) << "without a selection nothing happens";
    EXPECT_TRUE(fileManager.selected.isEmpty());
    EXPECT_EQ(controller->backups().count(), 2);

    controller->backupsTable()->selectRow(1);
    controller->showInFinder();
    EXPECT_EQ(fileManager.selected, QStringList({*controller->backups().at(1)->backupFolder()}));

    removeTree(folderOf(1));
    controller->showInFinder();
    EXPECT_EQ(fileManager.selected.size(), 1);
    EXPECT_EQ(alerts.messages(), QStringList({text("alertBackupNotFoundMessage")}));
    EXPECT_EQ(controller->backups().count(), 2) << "the list is not changed";
}

} // namespace
