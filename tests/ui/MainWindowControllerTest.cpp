#include "platform/ByteCountFormatter.h"
#include "support/Keyboard.h"
#include "support/MainWindowFixture.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QTest>

namespace {

using namespace TreeBuilder;

class MainWindowControllerTest : public MainWindowFixture {
protected:
    static QPoint rowPoint(MainWindowController& controller, int row)
    {
        CustomTableView* table = controller.backupsTable();
        return table->visualRect(table->model()->index(row, 0)).center();
    }
};

TEST_F(MainWindowControllerTest, AFreshWindowShowsItsTextsAndMeasuresTheiCloudFolderAfterEveryEvent)
{
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "a", 2500);
    auto controller = openWindow();

    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(controller->backupsTable()->model()->headerData(1, Qt::Horizontal).toString(),
              text("tableColumnTitleSize"));
    EXPECT_EQ(streams.paths, QStringList({iCloudFolder()}));
    EXPECT_TRUE(controller->folderEvents()->isWatchingPaths());

    EXPECT_EQ(controller->numberOfRowsInTableView(), 0);
    EXPECT_TRUE(controller->tableViewPlaceholderLabel()->isVisible());
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(),
              text("labelLastBackup") + ":\n" + text("labelLastBackupDateNever"));
    EXPECT_FALSE(controller->deleteBackupBtn()->isEnabled());
    EXPECT_FALSE(controller->showInFinderBtn()->isEnabled());
    EXPECT_FALSE(controller->restoreFromBackupBtn()->isEnabled());
    EXPECT_TRUE(controller->backUpNowBtn()->isEnabled());
    EXPECT_EQ(controller->backupsTable()->menuForEvent(QPoint(10, 10)), nullptr)
        << "no menu on an empty table";

    EXPECT_EQ(controller->labeliCloudSize()->text(), ByteCountFormatter::stringFromByteCount(2500));
    EXPECT_EQ(controller->labeliCloudSize()->palette().color(QPalette::WindowText), QColor(Qt::white));

    // Every folder event measures again, but never twice at once.
    QSignalSpy measured(controller.get(), &MainWindowController::iCloudSizeChanged);
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "b", 4000);
    ASSERT_TRUE(streams.callback);
    streams.callback({StreamEvent{iCloudFolder() + "/com~apple~CloudDocs", 0, 1}});
    EXPECT_TRUE(controller->isCalculatingiCloudSizeInProgress());
    controller->setiCloudSize(); // dropped while the first runs
    ASSERT_TRUE(waitForSize(*controller));
    QCoreApplication::processEvents();
    EXPECT_EQ(measured.count(), 1);
    EXPECT_EQ(controller->labeliCloudSize()->text(), ByteCountFormatter::stringFromByteCount(6500));
}

TEST_F(MainWindowControllerTest, RowsShowTheRecordsInCompletionOrderWithAContextMenuAndADoubleClick)
{
    const QDateTime second = QDateTime::fromSecsSinceEpoch(1700000000);
    storeBackups({BackupRecord::make(second, "/b/2", 1500000),
                  BackupRecord::make(QDateTime::fromSecsSinceEpoch(1600000000), "/b/1", 999)});
    const QVariantList stored = *defaults.arrayForKey("Backups");
    defaults.setObjectForKey(QVariantList{stored.at(0), stored.at(1), QVariantMap{}}, "Backups");
    auto controller = openWindow();
    CustomTableView* table = controller->backupsTable();

    ASSERT_EQ(table->model()->rowCount(), 3);
    EXPECT_EQ(controller->objectValueForTableColumn("date", 0),
              QLocale().toString(second, QLocale::ShortFormat));
    EXPECT_EQ(controller->objectValueForTableColumn("size", 0),
              ByteCountFormatter::stringFromByteCount(1500000));
    EXPECT_EQ(controller->objectValueForTableColumn("size", 1), ByteCountFormatter::stringFromByteCount(999));
    EXPECT_EQ(controller->objectValueForTableColumn("date", 2), QString()) << "a record without its keys";
    EXPECT_EQ(controller->objectValueForTableColumn("size", 2), ByteCountFormatter::stringFromByteCount(0));
    EXPECT_FALSE(controller->objectValueForTableColumn("date", 3).isValid());
    EXPECT_FALSE(controller->objectValueForTableColumn("other", 0).isValid());
    EXPECT_FALSE(controller->tableViewPlaceholderLabel()->isVisible());
    EXPECT_EQ(controller->lastBackupInfoLabel()->text(), text("labelLastBackup") + ":\n");

    // A context click selects its row and offers four commands for it, which operations disable.
    table->selectRow(0);
    std::unique_ptr<QMenu> menu(table->menuForEvent(rowPoint(*controller, 1)));
    ASSERT_NE(menu, nullptr);
    EXPECT_EQ(controller->selectedRow(), 1);
    const QList<QAction*> items = menu->actions();
    QStringList shortcuts;
    for (QAction* item : items) {
        shortcuts << item->shortcut().toString();
        EXPECT_EQ(item->data(), QVariant(1));
    }
    EXPECT_EQ(shortcuts, QStringList({"Ctrl+I", "Ctrl+O", "", "Del"}));
    const auto enabledItems = [&] {
        QString flags;
        for (QAction* item : items)
            flags += controller->validateMenuItem(item) ? '+' : '-';
        return flags;
    };
    EXPECT_EQ(enabledItems(), "++++");
    controller->setICloudBeingRestored(true);
    EXPECT_EQ(enabledItems(), "++--");
    controller->setICloudBeingRestored(false);
    controller->setICloudBackingUp(true);
    EXPECT_EQ(enabledItems(), "++-+") << "a running backup does not disable Delete";
    controller->setICloudBackingUp(false);

    menu.reset(table->menuForEvent(rowPoint(*controller, 1)));
    EXPECT_EQ(controller->selectedRow(), 1) << "an already selected row keeps the selection";
    const QPoint belowLastRow(10, table->viewport()->height() - 2);
    ASSERT_EQ(table->rowAt(belowLastRow.y()), -1);
    EXPECT_EQ(table->menuForEvent(belowLastRow), nullptr);
    EXPECT_EQ(controller->selectedRow(), 1) << "a click below the rows changes nothing";

    int asked = 0;
    controller->setShowBackupInfoHandler([&] { ++asked; });
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, rowPoint(*controller, 0));
    QTest::mouseDClick(table->viewport(), Qt::LeftButton, {}, rowPoint(*controller, 0));
    EXPECT_EQ(asked, 1) << "a double click asks for the backup's info";
}

TEST_F(MainWindowControllerTest, TabReachesEveryButtonAndEachAnswersItsAccessKey)
{
    const QString folder = QString::fromStdString((home.path() / "backup").string());
    makeFolder(folder.toStdString());
    storeBackups({BackupRecord::make(QDateTime::currentDateTime(), folder, 1)});
    auto controller = openWindow();

    const QSet<QWidget*> reached = reachedByTab(controller.get());
    EXPECT_TRUE(reached.contains(controller->backupsTable()));
    for (QPushButton* button : {controller->deleteBackupBtn(), controller->showInFinderBtn(),
                                controller->restoreFromBackupBtn(), controller->backUpNowBtn()})
        EXPECT_TRUE(reached.contains(button)) << button->text().toStdString();

    controller->backupsTable()->selectRow(0);
    ASSERT_TRUE(runEventLoopUntil([&] { return QApplication::activeWindow() == controller.get(); }));
    QTest::keyClick(controller.get(), Qt::Key_S, Qt::AltModifier);
    // The button shows itself pressed for a moment before it clicks.
    EXPECT_TRUE(runEventLoopUntil([&] { return !fileManager.selected.isEmpty(); }));
    EXPECT_EQ(fileManager.selected, QStringList({folder})) << "Alt+S: Show in File Manager";
}

// With the platform's own stream: the size follows the folder even when it is missing at launch, is made
// later, or is replaced by another folder.
TEST_F(MainWindowControllerTest, TheSizeLabelFollowsTheWatchedFolderWhateverHappensAtItsPath)
{
    MainWindowController::Services withRealStream = services();
    withRealStream.streamFactory = [](const QStringList& paths, std::uint64_t since, double,
                                      EventStream::Callback callback) {
        return EventStream::create(paths, since, 0.05, std::move(callback));
    };
    MainWindowController controller(withRealStream);
    controller.showWindow();
    ASSERT_TRUE(waitForSize(controller));
    const auto shows = [&](std::uint64_t bytes) {
        return runEventLoopUntil([&] {
            return controller.labeliCloudSize()->text() == ByteCountFormatter::stringFromByteCount(bytes);
        });
    };
    EXPECT_TRUE(shows(0));

    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "a", 1000);
    EXPECT_TRUE(shows(1000)) << "made after the launch: "
                             << controller.labeliCloudSize()->text().toStdString();
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "Documents" / "new", 250000);
    EXPECT_TRUE(shows(251000)) << controller.labeliCloudSize()->text().toStdString();

    writeFileOfSize(home.path() / "other" / "com~apple~CloudDocs" / "b", 4000);
    std::filesystem::rename(iCloud(), home.path() / "before");
    std::filesystem::rename(home.path() / "other", iCloud());
    EXPECT_TRUE(shows(4000)) << "replaced: " << controller.labeliCloudSize()->text().toStdString();
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "c", 3000);
    EXPECT_TRUE(shows(7000)) << controller.labeliCloudSize()->text().toStdString();
}

TEST_F(MainWindowControllerTest, CountsRunningAppsWhoseIdentifierLiesInAContainerName)
{
    for (const char* container : {"iCloud~com~example~Notes", "com~apple~CloudDocs",
                                  ".iCloud~com~example~Hidden", "iCloud~com~apple~finder~Extras"})
        makeFolder(iCloud() / container);
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
    auto first = openWindow();
    first->resize(731, 517);
    first->close();
    first.reset();
    EXPECT_EQ(openWindow()->size(), QSize(731, 517));
}

} // namespace
