#include "Helpers/ByteCountFormatter.h"
#include "Helpers/Localizer.h"
#include "app/iCloudPrefs.h"
#include "engine/BackupStore.h"
#include "platform/UserDefaults.h"
#include "support/MainWindowFixture.h"
#include "support/FakeRunningApplications.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/ScriptedChoosers.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"
#include "ui/main/MainWindowController.h"

#include <QAction>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

class MainWindowControllerTest : public MainWindowFixture {
protected:
    void storeBackups(const QList<BackupRecordRef>& records)
    {
        BackupStore store(defaults);
        for (const BackupRecordRef& record : records)
            store.append(record);
    }
    static QPoint rowPoint(MainWindowController& controller, int row)
    {
        CustomTableView* table = controller.backupsTable();
        return table->visualRect(table->model()->index(row, 0)).center();
    }
};

TEST_F(MainWindowControllerTest, SetsItselfUpFromTheStringTablesAndWatchesTheiCloudFolder)
{
    TreeBuilder::writeFileOfSize(home.path() / "Library" / "Mobile Documents" / "com~apple~CloudDocs" / "a", 2500);
    auto controller = openWindow();

    EXPECT_EQ(controller->windowTitle(), "Pelmora");
    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(controller->allYourBackupsLabel()->text(), text("labelAllYourBackups"));
    EXPECT_EQ(controller->backUpNowBtn()->text(), text("btnTitleBackUp"));
    EXPECT_EQ(controller->showInFinderBtn()->text(), text("titleShowInFinder"));
    EXPECT_EQ(controller->backupsTable()->model()->headerData(1, Qt::Horizontal).toString(),
              text("tableColumnTitleSize"));
    EXPECT_EQ(controller->labelCurrentlyIniCloud()->text(), text("labelCurrentlyIniCloud"));
    EXPECT_EQ(streams.paths, QStringList({iCloudFolder()}));
    EXPECT_TRUE(controller->folderEvents()->isWatchingPaths());

    ASSERT_TRUE(waitForSize(*controller));
    EXPECT_EQ(controller->labeliCloudSize()->text(), ByteCountFormatter::stringFromByteCount(2500));
    EXPECT_EQ(controller->labeliCloudSize()->palette().color(QPalette::WindowText), QColor(Qt::white));
}

TEST_F(MainWindowControllerTest, WithoutBackupsShowsThePlaceholderAndDisablesTheRowButtons)
{
    auto controller = openWindow();
    EXPECT_EQ(controller->numberOfRowsInTableView(), 0);
    EXPECT_TRUE(controller->tableViewPlaceholderLabel()->isVisible());
    EXPECT_EQ(controller->tableViewPlaceholderLabel()->text(), text("placeholderBackupTable"));
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(),
              text("labelLastBackup") + ":\n" + text("labelLastBackupDateNever"));
    EXPECT_FALSE(controller->deleteBackupBtn()->isEnabled());
    EXPECT_FALSE(controller->showInFinderBtn()->isEnabled());
    EXPECT_FALSE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->backUpNowBtn()->isEnabled());
    EXPECT_EQ(controller->backupsTable()->menuForEvent(QPoint(10, 10)), nullptr) << "no menu on an empty table";
}

TEST_F(MainWindowControllerTest, SandboxedItKnowsNoFolderUntilTheLaunchHandsItOne)
{
    auto controller = openWindow(true);
    EXPECT_FALSE(controller->mobileDocumentsDirectory().has_value());
    EXPECT_EQ(controller->labeliCloudSize()->text(), "?");
    EXPECT_FALSE(controller->isCalculatingiCloudSizeInProgress());
    EXPECT_FALSE(streams.calls.contains("start"));
}

TEST_F(MainWindowControllerTest, RowsShowTheRecordsInCompletionOrder)
{
    const QDateTime first = QDateTime::fromSecsSinceEpoch(1600000000);
    const QDateTime second = QDateTime::fromSecsSinceEpoch(1700000000);
    storeBackups({BackupRecord::make(second, "/b/2", 1500000), BackupRecord::make(first, "/b/1", 999)});
    defaults.setObjectForKey(
        QVariantList{defaults.arrayForKey("Backups")->at(0), defaults.arrayForKey("Backups")->at(1), QVariantMap{}},
        "Backups");
    auto controller = openWindow();

    ASSERT_EQ(controller->backupsTable()->model()->rowCount(), 3);
    EXPECT_EQ(controller->objectValueForTableColumn("date", 0), QLocale().toString(second, QLocale::ShortFormat));
    EXPECT_EQ(controller->objectValueForTableColumn("size", 0), ByteCountFormatter::stringFromByteCount(1500000));
    EXPECT_EQ(controller->objectValueForTableColumn("size", 1), ByteCountFormatter::stringFromByteCount(999));
    EXPECT_EQ(controller->objectValueForTableColumn("date", 2), QString()) << "a record without its keys";
    EXPECT_EQ(controller->objectValueForTableColumn("size", 2), ByteCountFormatter::stringFromByteCount(0));
    EXPECT_FALSE(controller->objectValueForTableColumn("date", 3).isValid());
    EXPECT_FALSE(controller->objectValueForTableColumn("other", 0).isValid());
    EXPECT_FALSE(controller->tableViewPlaceholderLabel()->isVisible());
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(), text("labelLastBackup") + ":\n");
}

TEST_F(MainWindowControllerTest, AContextClickSelectsItsRowAndOffersFourCommandsForIt)
{
    storeBackups({BackupRecord::make(QDateTime::currentDateTime(), "/b/1", 1),
                  BackupRecord::make(QDateTime::currentDateTime(), "/b/2", 2)});
    auto controller = openWindow();
    CustomTableView* table = controller->backupsTable();
    table->selectRow(0);

    std::unique_ptr<QMenu> menu(table->menuForEvent(rowPoint(*controller, 1)));
    ASSERT_NE(menu, nullptr);
    EXPECT_EQ(controller->selectedRow(), 1);
    const QList<QAction*> items = menu->actions();
    ASSERT_EQ(items.size(), 4);
    EXPECT_EQ(items[0]->text(), text("contextMenuItemTitleGetInfo"));
    EXPECT_EQ(items[0]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_I));
    EXPECT_EQ(items[1]->text(), text("titleShowInFinder"));
    EXPECT_EQ(items[1]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_O));
    EXPECT_EQ(items[2]->text(), text("btnTitleRestore"));
    EXPECT_TRUE(items[2]->shortcut().isEmpty());
    EXPECT_EQ(items[3]->text(), text("btnTitleDelete"));
    EXPECT_EQ(items[3]->shortcut(), QKeySequence(Qt::Key_Delete));
    for (QAction* item : items)
        EXPECT_EQ(item->data(), QVariant(1));

    menu.reset(table->menuForEvent(rowPoint(*controller, 1)));
    EXPECT_EQ(controller->selectedRow(), 1) << "an already selected row keeps the selection";

    const QPoint belowLastRow(10, table->viewport()->height() - 2);
    ASSERT_EQ(table->rowAt(belowLastRow.y()), -1);
    EXPECT_EQ(table->menuForEvent(belowLastRow), nullptr);
    EXPECT_EQ(controller->selectedRow(), 1) << "a click below the rows changes nothing";
}

TEST_F(MainWindowControllerTest, RunningOperationsDisableTheRightCommands)
{
    storeBackups({BackupRecord::make(QDateTime::currentDateTime(), "/b/1", 1)});
    auto controller = openWindow();
    std::unique_ptr<QMenu> menu(controller->backupsTable()->menuForEvent(rowPoint(*controller, 0)));
    const QList<QAction*> items = menu->actions();

    controller->setICloudBeingRestored(true);
    EXPECT_TRUE(controller->validateMenuItem(items[1]));
    EXPECT_FALSE(controller->validateMenuItem(items[2]));
    EXPECT_FALSE(controller->validateMenuItem(items[3]));

    controller->setICloudBeingRestored(false);
    controller->setICloudBackingUp(true);
    EXPECT_FALSE(controller->validateMenuItem(items[2]));
    EXPECT_TRUE(controller->validateMenuItem(items[3])) << "a running backup does not disable Delete";

    controller->setICloudBackingUp(false);
    for (QAction* item : items)
        EXPECT_TRUE(controller->validateMenuItem(item));
}

TEST_F(MainWindowControllerTest, EveryFolderEventMeasuresAgainButNeverTwiceAtOnce)
{
    const auto folder = home.path() / "Library" / "Mobile Documents";
    TreeBuilder::writeFileOfSize(folder / "com~apple~CloudDocs" / "a", 1000);
    auto controller = openWindow();
    ASSERT_TRUE(waitForSize(*controller));
    QSignalSpy measured(controller.get(), &MainWindowController::iCloudSizeChanged);

    TreeBuilder::writeFileOfSize(folder / "com~apple~CloudDocs" / "b", 4000);
    ASSERT_TRUE(streams.callback);
    streams.callback({StreamEvent{iCloudFolder() + "/com~apple~CloudDocs", 0, 1}});
    EXPECT_TRUE(controller->isCalculatingiCloudSizeInProgress());
    controller->setiCloudSize(); // dropped while the first runs
    ASSERT_TRUE(waitForSize(*controller));
    QCoreApplication::processEvents();
    EXPECT_EQ(measured.count(), 1);
    EXPECT_EQ(controller->labeliCloudSize()->text(), ByteCountFormatter::stringFromByteCount(5000));
}

TEST_F(MainWindowControllerTest, AFileWrittenIntoTheWatchedFolderShowsInTheSizeLabel)
{
    const auto folder = home.path() / "Library" / "Mobile Documents";
    TreeBuilder::writeFileOfSize(folder / "com~apple~CloudDocs" / "a", 1000);
    // The platform's own stream, with a latency short enough for a test.
    MainWindowController::Services withRealStream = services();
    withRealStream.streamFactory = [](const QStringList& paths, std::uint64_t since, double,
                                      EventStream::Callback callback) {
        return EventStream::create(paths, since, 0.05, std::move(callback));
    };
    MainWindowController controller(withRealStream);
    controller.showWindow();
    ASSERT_TRUE(waitForSize(controller));
    ASSERT_EQ(controller.labeliCloudSize()->text(), ByteCountFormatter::stringFromByteCount(1000));

    TreeBuilder::writeFileOfSize(folder / "com~apple~CloudDocs" / "Documents" / "new", 250000);
    EXPECT_TRUE(runEventLoopUntil([&] {
        return controller.labeliCloudSize()->text() == ByteCountFormatter::stringFromByteCount(251000);
    })) << controller.labeliCloudSize()->text().toStdString();
}

TEST_F(MainWindowControllerTest, CountsRunningAppsWhoseIdentifierLiesInAContainerName)
{
    const auto folder = home.path() / "Library" / "Mobile Documents";
    for (const char* container : {"iCloud~com~example~Notes", "com~apple~CloudDocs", ".iCloud~com~example~Hidden",
                                  "iCloud~com~apple~finder~Extras"})
        TreeBuilder::makeFolder(folder / container);
    auto controller = openWindow();
    EXPECT_EQ(controller->calculateCountOfRunningAppsThatUseiCloud(), 0);

    applications.add(10, std::nullopt, "bash");
    applications.add(11, QString("com.apple.finder"));
    applications.add(12, QString("com.example.Hidden"));
    EXPECT_EQ(controller->calculateCountOfRunningAppsThatUseiCloud(), 0);

    applications.add(13, QString("com.example.Notes"));
    EXPECT_EQ(controller->calculateCountOfRunningAppsThatUseiCloud(), 1);
    applications.add(14, QString("com.apple")); // a short identifier matches every container holding it
    EXPECT_EQ(controller->calculateCountOfRunningAppsThatUseiCloud(), 3);
    applications.add(15, QString("com.Example.notes"));
    EXPECT_EQ(controller->calculateCountOfRunningAppsThatUseiCloud(), 3) << "the test is case-sensitive";
}

TEST_F(MainWindowControllerTest, TheWindowFrameIsRememberedBetweenRuns)
{
    {
        auto controller = openWindow();
        controller->resize(731, 517);
        controller->close();
    }
    auto later = openWindow();
    EXPECT_EQ(later->size(), QSize(731, 517));
}

TEST_F(MainWindowControllerTest, ADoubleClickAsksForTheBackupsInfo)
{
    storeBackups({BackupRecord::make(QDateTime::currentDateTime(), "/b/1", 1)});
    auto controller = openWindow();
    int asked = 0;
    controller->setShowBackupInfoHandler([&] { ++asked; });
    QWidget* viewport = controller->backupsTable()->viewport();
    QTest::mouseClick(viewport, Qt::LeftButton, {}, rowPoint(*controller, 0));
    QTest::mouseDClick(viewport, Qt::LeftButton, {}, rowPoint(*controller, 0));
    EXPECT_EQ(asked, 1);
}

TEST(UserInterfaceLibraryTest, VersionsAfterTenNineCount)
{
    EXPECT_FALSE(MainWindowController::isYosemiteRunning(1265.0));
    EXPECT_FALSE(MainWindowController::isYosemiteRunning(1265.9));
    EXPECT_TRUE(MainWindowController::isYosemiteRunning(1266.0));
    EXPECT_TRUE(MainWindowController::isYosemiteRunning());
}

} // namespace
