#include "engine/RestorePreparation.h"

#include "engine/DirectoryCopier.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// The backup's files carry this time; live files differ from it by as little as one nanosecond or one
// second, so that a comparison of only the seconds or only the nanoseconds shows.
constexpr timespec kBackupTime{1700000000, 123456789};

void setModified(const fs::path& path, timespec modified)
{
    const timespec times[2] = {{0, UTIME_OMIT}, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

void writeDated(const fs::path& file, std::string_view content, timespec modified)
{
    writeFile(file, content);
    setModified(file, modified);
}

bool itemExists(const fs::path& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

struct stat statusOf(const fs::path& path)
{
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

bool isFolder(const fs::path& path)
{
    return itemExists(path) && S_ISDIR(statusOf(path).st_mode);
}

bool isRegularFile(const fs::path& path)
{
    return itemExists(path) && S_ISREG(statusOf(path).st_mode);
}

std::pair<time_t, long> modifiedOf(const fs::path& path)
{
    const struct stat status = statusOf(path);
    return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

class RestorePreparationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        makeFolder(live);
        makeFolder(backup);
        makeFolder(outside);
    }

    void prune() { RestorePreparation::pruneLiveFolder(live, backup, canceled); }
    RestoreTotals measure() { return RestorePreparation::measureFilesToCopy(backup, live, canceled); }

    // Both passes in the program's order; returns what the copy back is expected to create.
    RestoreTotals prepare()
    {
        prune();
        return measure();
    }

    // The copy back, as the restore runs it; returns the number of files it reported.
    int copyBack()
    {
        int copied = 0;
        EXPECT_TRUE(
            DirectoryCopier::copyDirectoryAtPath(backup, live, canceled, [&](const fs::path&) { ++copied; }));
        return copied;
    }

    // A live file that differs from its backup copy only by its time has to go and come back.
    void expectReplacedWhenLiveTimeIs(timespec liveTime)
    {
        writeDated(backup / "Pages" / "doc.txt", "from backup", kBackupTime);
        writeDated(live / "Pages" / "doc.txt", "edited since, and longer", liveTime);

        prune();
        EXPECT_FALSE(itemExists(live / "Pages" / "doc.txt"));
        EXPECT_TRUE(isFolder(live / "Pages"));
        const RestoreTotals totals = measure();
        EXPECT_EQ(totals.totalCount, 1);
        EXPECT_EQ(totals.totalSize, 11u);

        EXPECT_EQ(copyBack(), 1);
        EXPECT_EQ(readFile(live / "Pages" / "doc.txt"), "from backup");
        EXPECT_EQ(modifiedOf(live / "Pages" / "doc.txt"), modifiedOf(backup / "Pages" / "doc.txt"));
    }

    TestHome home;
    const fs::path live = home.path() / "Mobile Documents";
    const fs::path backup = home.path() / "backups" / "2026.11.22-10.00.00";
    const fs::path outside = home.path() / "elsewhere";
    std::atomic<bool> canceled{false};
};

TEST_F(RestorePreparationTest, LiveFileWithTheBackupsTimeStaysUntouchedAndIsNotCounted)
{
    writeDated(backup / "doc.txt", "backup content", kBackupTime);
    writeDated(live / "doc.txt", "live content", kBackupTime);
    const ino_t inode = statusOf(live / "doc.txt").st_ino;

    const RestoreTotals totals = prepare();

    EXPECT_EQ(totals.totalCount, 0);
    EXPECT_EQ(totals.totalSize, 0u);
    EXPECT_EQ(statusOf(live / "doc.txt").st_ino, inode);
    EXPECT_EQ(readFile(live / "doc.txt"), "live content");
}

TEST_F(RestorePreparationTest, LiveFileNewerByOneNanosecondIsReplacedByTheBackupsCopy)
{
    expectReplacedWhenLiveTimeIs({kBackupTime.tv_sec, kBackupTime.tv_nsec + 1});
}

TEST_F(RestorePreparationTest, LiveFileOlderByOneSecondIsReplacedByTheBackupsCopy)
{
    expectReplacedWhenLiveTimeIs({kBackupTime.tv_sec - 1, kBackupTime.tv_nsec});
}

TEST_F(RestorePreparationTest, LiveFolderTheBackupLacksGoesWithEverythingInIt)
{
    makeFolder(backup / "kept");
    writeFile(live / "kept" / "extra" / "inner" / "deep.txt", "deep");
    writeFile(live / "kept" / "extra" / "file.txt", "file");
    makeSymlink("file.txt", live / "kept" / "extra" / "link");

    const RestoreTotals totals = prepare();

    EXPECT_FALSE(itemExists(live / "kept" / "extra"));
    EXPECT_TRUE(isFolder(live / "kept"));
    EXPECT_EQ(totals.totalCount, 0);
}

TEST_F(RestorePreparationTest, LiveFolderWhereTheBackupHasAFileBecomesThatFile)
{
    writeDated(backup / "item", "a file in the backup", kBackupTime);
    writeDated(live / "item" / "inside.txt", "inside", kBackupTime);
    setModified(live / "item", kBackupTime); // the same time must not keep a folder standing for a file

    const RestoreTotals totals = prepare();
    EXPECT_FALSE(itemExists(live / "item"));
    EXPECT_EQ(totals.totalCount, 1);
    EXPECT_EQ(totals.totalSize, 20u);

    EXPECT_EQ(copyBack(), 1);
    EXPECT_TRUE(isRegularFile(live / "item"));
    EXPECT_EQ(readFile(live / "item"), "a file in the backup");
}

TEST_F(RestorePreparationTest, LiveFileWhereTheBackupHasAFolderBecomesThatFolder)
{
    writeFile(backup / "item" / "a.txt", "abc");
    writeFile(backup / "item" / "sub" / "b.txt", "defgh");
    writeDated(live / "item", "a file in the live folder", kBackupTime);

    const RestoreTotals totals = prepare();
    EXPECT_FALSE(itemExists(live / "item"));
    EXPECT_EQ(totals.totalCount, 2);
    EXPECT_EQ(totals.totalSize, 8u);

    EXPECT_EQ(copyBack(), 2);
    EXPECT_EQ(readFile(live / "item" / "a.txt"), "abc");
    EXPECT_EQ(readFile(live / "item" / "sub" / "b.txt"), "defgh");
}

TEST_F(RestorePreparationTest, HiddenLiveItemsStayAndHiddenFoldersAreNotEntered)
{
    makeFolder(backup / "Numbers");
    writeDated(backup / ".settings", "backup's", kBackupTime);
    writeDated(live / ".settings", "live's, changed since", {kBackupTime.tv_sec + 60, 0});
    writeFile(live / ".only-live", "hidden file");
    writeFile(live / ".cache" / "not-in-backup.txt", "would be pruned if the folder were entered");
    writeFile(live / ".cache" / "sub" / "deeper.txt", "deeper");
    writeFile(live / "Numbers" / ".lock", "hidden inside a kept folder");

    const RestoreTotals totals = prepare();

    EXPECT_EQ(readFile(live / ".settings"), "live's, changed since");
    EXPECT_EQ(readFile(live / ".only-live"), "hidden file");
    EXPECT_EQ(readFile(live / ".cache" / "not-in-backup.txt"), "would be pruned if the folder were entered");
    EXPECT_EQ(readFile(live / ".cache" / "sub" / "deeper.txt"), "deeper");
    EXPECT_EQ(readFile(live / "Numbers" / ".lock"), "hidden inside a kept folder");
    EXPECT_EQ(totals.totalCount, 0);
}

TEST_F(RestorePreparationTest, BackupsDsStoreIsNeitherCountedNorCopiedButOtherHiddenFilesAre)
{
    writeFile(backup / ".DS_Store", std::string(100, 'd'));
    writeFile(backup / "Keynote" / ".DS_Store", std::string(50, 'd'));
    writeFile(backup / "Keynote" / ".hidden", "1234567");

    const RestoreTotals totals = prepare();
    EXPECT_EQ(totals.totalCount, 1);
    EXPECT_EQ(totals.totalSize, 7u);

    EXPECT_EQ(copyBack(), 1);
    EXPECT_EQ(readFile(live / "Keynote" / ".hidden"), "1234567");
    EXPECT_FALSE(itemExists(live / ".DS_Store"));
    EXPECT_FALSE(itemExists(live / "Keynote" / ".DS_Store"));
}

TEST_F(RestorePreparationTest, LinkToAFolderOutsideIsRemovedAsALink)
{
    writeFile(outside / "victim.txt", "must survive");
    writeFile(outside / "inner" / "deep.txt", "must survive too");
    makeSymlink(outside.native(), live / "portal");

    const RestoreTotals totals = prepare();

    EXPECT_FALSE(itemExists(live / "portal"));
    EXPECT_EQ(readFile(outside / "victim.txt"), "must survive");
    EXPECT_EQ(readFile(outside / "inner" / "deep.txt"), "must survive too");
    EXPECT_EQ(totals.totalCount, 0);
}

TEST_F(RestorePreparationTest, LinkNamedLikeABackupFolderIsReplacedByThatFolderLeavingItsTargetAlone)
{
    writeFile(backup / "docs" / "a.txt", "from backup");
    writeFile(backup / "docs" / "b.txt", "also from backup");
    writeFile(outside / "victim.txt", "the backup's docs folder lacks this");
    writeFile(outside / "a.txt", "the target's own a.txt");
    makeSymlink(outside.native(), live / "docs");
    // Made within the same clock tick, the link could carry the backup folder's very time, which keeps it.
    setModified(live / "docs", kBackupTime);

    const RestoreTotals totals = prepare();
    EXPECT_FALSE(itemExists(live / "docs"));
    EXPECT_EQ(totals.totalCount, 2);

    EXPECT_EQ(copyBack(), 2);
    EXPECT_TRUE(isFolder(live / "docs"));
    EXPECT_EQ(readFile(live / "docs" / "a.txt"), "from backup");
    EXPECT_EQ(readFile(outside / "victim.txt"), "the backup's docs folder lacks this");
    EXPECT_EQ(readFile(outside / "a.txt"), "the target's own a.txt");
    EXPECT_FALSE(itemExists(outside / "b.txt"));
}

// Containers are pruned and counted side by side: every one of them has to end up right, and the count
// has to add up over all of them.
TEST_F(RestorePreparationTest, EveryContainerIsPrunedAndCountedWhenThereAreMany)
{
    constexpr int kContainers = 16;
    for (int i = 0; i < kContainers; ++i) {
        const std::string container = "container" + std::to_string(i);
        writeDated(backup / container / "kept.txt", "kept", kBackupTime);
        writeDated(live / container / "kept.txt", "kept", kBackupTime);
        writeDated(backup / container / "deep" / "edited.txt", "backup", kBackupTime);
        writeFile(live / container / "deep" / "edited.txt", "edited live");
        writeFile(backup / container / "deep" / "missing.txt", std::string(static_cast<std::size_t>(i), 'm'));
        writeFile(live / container / "added" / "new.txt", "added live");
    }
    writeFile(live / "only-live" / "x.txt", "x");
    writeFile(backup / "only-backup" / "y.txt", "yy");

    const RestoreTotals totals = prepare();

    for (int i = 0; i < kContainers; ++i) {
        const fs::path container = live / ("container" + std::to_string(i));
        EXPECT_TRUE(isRegularFile(container / "kept.txt")) << i;
        EXPECT_FALSE(itemExists(container / "deep" / "edited.txt")) << i;
        EXPECT_FALSE(itemExists(container / "added")) << i;
    }
    EXPECT_FALSE(itemExists(live / "only-live"));
    // Per container the edited and the missing file, and the folder only the backup has.
    EXPECT_EQ(totals.totalCount, 2 * kContainers + 1);
    EXPECT_EQ(totals.totalSize, 6u * kContainers + (kContainers - 1) * kContainers / 2 + 2);
}

TEST_F(RestorePreparationTest, PruneCanceledBeforehandRemovesNothing)
{
    writeFile(live / "extra.txt", "extra");
    writeFile(live / "folder" / "inner.txt", "inner");
    canceled = true;

    prune();

    EXPECT_EQ(readFile(live / "extra.txt"), "extra");
    EXPECT_EQ(readFile(live / "folder" / "inner.txt"), "inner");
}

TEST_F(RestorePreparationTest, MeasureCanceledBeforehandCountsNothing)
{
    writeFile(backup / "a.txt", "aaa");
    writeFile(backup / "folder" / "b.txt", "bbb");
    canceled = true;

    const RestoreTotals totals = measure();

    EXPECT_EQ(totals.totalCount, 0);
    EXPECT_EQ(totals.totalSize, 0u);
}

TEST_F(RestorePreparationTest, NamesThatAreNotUtf8AreMatchedByTheirBytes)
{
    const std::string folder = "r\xe9sum\xe9";
    writeDated(backup / folder / "same\xff.bin", "same", kBackupTime);
    writeFile(backup / folder / "new\x80.txt", "12345");
    writeDated(live / folder / "same\xff.bin", "same", kBackupTime);
    writeFile(live / "caf\xe9.txt", "not in the backup");
    writeFile(live / "dossier \xe0 part" / "x.txt", "not in the backup either");

    const RestoreTotals totals = prepare();
    EXPECT_TRUE(itemExists(live / folder / "same\xff.bin"));
    EXPECT_FALSE(itemExists(live / "caf\xe9.txt"));
    EXPECT_FALSE(itemExists(live / "dossier \xe0 part"));
    EXPECT_EQ(totals.totalCount, 1);
    EXPECT_EQ(totals.totalSize, 5u);

    EXPECT_EQ(copyBack(), 1);
    EXPECT_EQ(readFile(live / folder / "new\x80.txt"), "12345");
}

} // namespace
