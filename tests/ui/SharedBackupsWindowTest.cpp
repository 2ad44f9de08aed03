// Backups made from the window share unchanged files with the one before, and the info window tells what
// each takes on disk, measured off the main thread.
#include "platform/ByteCountFormatter.h"
#include "support/MainWindowFixture.h"
#include "ui/inspector/InspectorWindowController.h"

#include <cstdio>
#include <QThreadPool>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

ino_t inodeOf(const fs::path& item)
{
    struct stat status {};
    EXPECT_EQ(::lstat(item.c_str(), &status), 0) << item;
    return status.st_ino;
}

// du's count of the blocks of the last folder that none of the others holds, as the window shows sizes.
QString duSize(const std::vector<fs::path>& folders)
{
    std::string command = "du -s -B1";
    for (const fs::path& folder : folders)
        command += " '" + folder.native() + "'";
    FILE* pipe = ::popen((command + " | tail -n 1").c_str(), "r");
    unsigned long long bytes = 0;
    EXPECT_EQ(std::fscanf(pipe, "%llu", &bytes), 1);
    ::pclose(pipe);
    return ByteCountFormatter::stringFromByteCount(bytes);
}

class SharedBackupsWindowTest : public MainWindowFixture {};

TEST_F(SharedBackupsWindowTest, ASecondBackupSharesUnchangedFilesAndTheInfoWindowTellsWhatEachCosts)
{
    writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "movie.mov", 2 << 20);
    writeItems(iCloud(), {"com~apple~CloudDocs/notes.txt=before", "iCloud~com~example~Notes/a.txt=a"});
    int second = 0;
    clock = [&] { return QDateTime::currentDateTime().addSecs(++second * 2); };
    auto controller = openWindow();
    ASSERT_TRUE(backUp(*controller));
    writeItems(iCloud(), {"com~apple~CloudDocs/notes.txt=after!"});
    ASSERT_TRUE(backUp(*controller));
    ASSERT_EQ(controller->backups().count(), 2);
    const fs::path older = folderOf(controller->backups().at(0));
    const fs::path newer = folderOf(controller->backups().at(1));

    EXPECT_EQ(inodeOf(older / "com~apple~CloudDocs/movie.mov"),
              inodeOf(newer / "com~apple~CloudDocs/movie.mov"));
    EXPECT_EQ(inodeOf(older / "iCloud~com~example~Notes/a.txt"),
              inodeOf(newer / "iCloud~com~example~Notes/a.txt"));
    EXPECT_NE(inodeOf(older / "com~apple~CloudDocs/notes.txt"),
              inodeOf(newer / "com~apple~CloudDocs/notes.txt"));
    EXPECT_EQ(readFile(newer / "com~apple~CloudDocs/notes.txt"), "after!");
    // The list keeps the size counted in the iCloud folder, shared or not.
    EXPECT_EQ(controller->backups().at(1)->backupSize(), controller->backups().at(0)->backupSize());

    InspectorWindowController inspector(fileManager);
    inspector.showBackupInfo(controller->backups().at(0));
    EXPECT_EQ(inspector.backupSpaceLabel()->text(), text("labelMeasuringBackupSpace"))
        << "the window opens before the measure is done";
    const QString expected = text("formatStringBackupSpace").arg(duSize({older}), duSize({newer, older}));
    EXPECT_TRUE(runEventLoopUntil([&] { return inspector.backupSpaceLabel()->text() == expected; }))
        << inspector.backupSpaceLabel()->text().toStdString() << " != " << expected.toStdString();

    // A measure overtaken by another backup's is never shown.
    inspector.showBackupInfo(controller->backups().at(1));
    inspector.showBackupInfo(controller->backups().at(0));
    EXPECT_TRUE(runEventLoopUntil([&] { return inspector.backupSpaceLabel()->text() == expected; }));
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    EXPECT_EQ(inspector.backupSpaceLabel()->text(), expected);
    fs::remove_all(older);
    inspector.showBackupInfo(controller->backups().at(0));
    EXPECT_FALSE(inspector.backupSpaceLabel()->isVisible());
    inspector.showBackupInfo(controller->backups().at(1));
    const QString alone = text("formatStringBackupSpace").arg(duSize({newer}), duSize({newer}));
    EXPECT_TRUE(runEventLoopUntil([&] { return inspector.backupSpaceLabel()->text() == alone; }))
        << inspector.backupSpaceLabel()->text().toStdString();
}

} // namespace
