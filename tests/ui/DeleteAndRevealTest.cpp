#include "engine/BackupStore.h"
#include "support/MainWindowFixture.h"
#include "support/TreeBuilder.h"

#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class DeleteAndRevealTest : public MainWindowFixture {
protected:
    // Two backups whose folders exist, the second one selected.
    std::unique_ptr<MainWindowController> openWithBackups()
    {
        BackupStore store(defaults);
        for (const char* name : {"2026.01.01-10.00.00", "2026.02.01-10.00.00"}) {
            const fs::path folder = home.dataHome() / "Pelmora" / name;
            writeFile(folder / "com~apple~CloudDocs" / "f", "x");
            store.append(BackupRecord::make(QDateTime::currentDateTime(), QString::fromStdString(folder.string()), 1));
        }
        auto controller = openWindow();
        controller->backupsTable()->selectRow(1);
        return controller;
    }
    fs::path folderOf(MainWindowController& controller, int row) const
    {
        return QFile::encodeName(*controller.backups().at(row)->backupFolder()).toStdString();
    }
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
};

TEST_F(DeleteAndRevealTest, YesRemovesTheFolderAndTheRecord)
{
    auto controller = openWithBackups();
    const fs::path second = folderOf(*controller, 1);
    const QString first = *controller->backups().at(0)->backupFolder();

    controller->deleteBackup();

    EXPECT_EQ(alerts.messages(), QStringList({text("alertDeleteBackupMessage")}));
    EXPECT_FALSE(fs::exists(second));
    EXPECT_EQ(controller->backups().count(), 1);
    EXPECT_EQ(storedFolders(), QStringList({first}));
    EXPECT_EQ(controller->backupsTable()->model()->rowCount(), 1);
}

TEST_F(DeleteAndRevealTest, NoKeepsEverythingButNoWithTheBoxTickedRemovesAndRemembers)
{
    auto controller = openWithBackups();
    alerts.answers = {AlertResponse{1001, false}};
    controller->deleteBackup();
    EXPECT_EQ(controller->backups().count(), 2);
    EXPECT_TRUE(fs::exists(folderOf(*controller, 1)));

    alerts.answers = {AlertResponse{1001, true}};
    controller->deleteBackup();
    EXPECT_EQ(controller->backups().count(), 1);
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));

    // From now on nothing is asked.
    controller->backupsTable()->selectRow(0);
    const fs::path last = folderOf(*controller, 0);
    controller->deleteBackup();
    EXPECT_EQ(alerts.shown.size(), 2);
    EXPECT_FALSE(fs::exists(last));
    EXPECT_EQ(controller->backups().count(), 0);
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(),
              text("labelLastBackup") + ":\n" + text("labelLastBackupDateNever"));
    EXPECT_FALSE(controller->deleteBackupBtn()->isEnabled());
    EXPECT_FALSE(controller->showInFinderBtn()->isEnabled());
    EXPECT_FALSE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->tableViewPlaceholderLabel()->isVisible());
}

TEST_F(DeleteAndRevealTest, ARecordWhoseFolderIsGoneIsDroppedSilently)
{
    auto controller = openWithBackups();
    removeTree(folderOf(*controller, 1));
    controller->deleteBackup();
    EXPECT_EQ(controller->backups().count(), 1);
    EXPECT_EQ(alerts.shown.size(), 1) << "only the confirmation";
}

TEST_F(DeleteAndRevealTest, WithoutASelectionNothingHappens)
{
    auto controller = openWithBackups();
    controller->backupsTable()->clearSelection();
    controller->deleteBackup();
    controller->showInFinder();
    EXPECT_TRUE(alerts.shown.isEmpty());
    EXPECT_TRUE(fileManager.selected.isEmpty());
    EXPECT_EQ(controller->backups().count(), 2);
}

TEST_F(DeleteAndRevealTest, RevealShowsTheFolderOrSaysItIsGone)
{
    auto controller = openWithBackups();
    controller->showInFinder();
    EXPECT_EQ(fileManager.selected, QStringList({*controller->backups().at(1)->backupFolder()}));

    removeTree(folderOf(*controller, 1));
    controller->showInFinder();
    EXPECT_EQ(fileManager.selected.size(), 1);
    EXPECT_EQ(alerts.messages(), QStringList({text("alertBackupNotFoundMessage")}));
    EXPECT_EQ(controller->backups().count(), 2) << "the list is not changed";
}

} // namespace
