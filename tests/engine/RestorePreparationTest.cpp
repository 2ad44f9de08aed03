#include "engine/RestorePreparation.h"

#include "engine/DirectoryCopier.h"
#include "engine/Trash.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

void writeDated(const fs::path& file, std::string_view content, timespec modified = kBackupTime)
{
    writeFile(file, content);
    setModified(file, modified);
}

// The kind of item at `path` and, for a file, its modification time; "missing" when there is none.
std::string itemAt(const fs::path& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return "missing";
    if (S_ISDIR(status.st_mode))
        return "folder";
    return (S_ISREG(status.st_mode) ? "file " : "other ") + std::to_string(status.st_mtim.tv_sec) + "." +
           std::to_string(status.st_mtim.tv_nsec);
}

// A file with the backup's time, as itemAt describes it.
const std::string kBackupFile = "file 1700000000.123456789";

ino_t inodeOf(const fs::path& path)
{
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

std::string describe(const RestoreTotals& totals)
{
    return std::to_string(totals.totalCount) + " files, " + std::to_string(totals.totalSize) + " bytes";
}

// "call path errno" for each failure, sorted: the prune's threads add them in no fixed order.
std::vector<std::string> described(const std::vector<FsError>& failures)
{
    std::vector<std::string> lines;
    for (const FsError& failure : failures)
        lines.push_back(failure.operation + " " + failure.path.native() + " " + std::to_string(failure.code));
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::string summary(const PruneOutcome& outcome)
{
    std::string text = outcome.backupReadable ? "readable" : "unreadable";
    text += ", " + std::to_string(outcome.trashed) + " trashed";
    for (const auto& [label, list] :
         {std::pair{"kept", &outcome.kept}, std::pair{"not removed", &outcome.notRemoved},
          std::pair{"removed for good", &outcome.removedForGood}}) {
        for (const std::string& line : described(*list))
            text += std::string("; ") + label + ": " + line;
    }
    return text;
}

class RestorePreparationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        makeFolder(live);
        makeFolder(backup);
        makeFolder(outside);
    }

    // Both passes in the program's order; describes what the copy back is expected to create.
    std::string prepare(const PruneOptions& options = {})
    {
        pruned = RestorePreparation::pruneLiveFolder(live, backup, canceled, options);
        return describe(RestorePreparation::measureFilesToCopy(backup, live, canceled));
    }

    // The copy back, as the restore runs it; returns the number of files it reported.
    int copyBack()
    {
        int copied = 0;
        const CopyOutcome outcome =
            DirectoryCopier::copyDirectoryAtPath(backup, live, canceled, [&](const fs::path&) { ++copied; });
        EXPECT_TRUE(outcome.finished());
        EXPECT_TRUE(outcome.notCopied.empty());
        return copied;
    }

    TestHome home;
    const fs::path live = home.path() / "Mobile Documents";
    const fs::path backup = home.path() / "backups" / "2026.11.22-10.00.00";
    const fs::path outside = home.path() / "elsewhere";
    std::atomic<bool> canceled{false};
    PruneOutcome pruned;
};

TEST_F(RestorePreparationTest, ALiveFileStaysOnlyWithTheBackupsTimeToTheNanosecond)
{
    for (const char* name : {"same.txt", "newer.txt", "older.txt"})
        writeDated(backup / "Pages" / name, "from backup");
    writeDated(live / "Pages" / "same.txt", "live content");
    writeDated(live / "Pages" / "newer.txt", "edited since, and longer",
               {kBackupTime.tv_sec, kBackupTime.tv_nsec + 1});
    writeDated(live / "Pages" / "older.txt", "edited since, and longer",
               {kBackupTime.tv_sec - 1, kBackupTime.tv_nsec});
    const ino_t inode = inodeOf(live / "Pages" / "same.txt");

    RestorePreparation::pruneLiveFolder(live, backup, canceled);
    EXPECT_EQ(itemAt(live / "Pages" / "newer.txt"), "missing");
    EXPECT_EQ(itemAt(live / "Pages" / "older.txt"), "missing");
    EXPECT_EQ(itemAt(live / "Pages"), "folder");
    EXPECT_EQ(describe(RestorePreparation::measureFilesToCopy(backup, live, canceled)), "2 files, 22 bytes");

    EXPECT_EQ(copyBack(), 2);
    EXPECT_EQ(inodeOf(live / "Pages" / "same.txt"), inode);
    EXPECT_EQ(readFile(live / "Pages" / "same.txt"), "live content");
    for (const char* name : {"newer.txt", "older.txt"}) {
        EXPECT_EQ(readFile(live / "Pages" / name), "from backup") << name;
        EXPECT_EQ(itemAt(live / "Pages" / name), kBackupFile) << name;
    }
}

TEST_F(RestorePreparationTest, WhatTheBackupLacksGoesWholeAndALinkToAFolderOutsideGoesAsALink)
{
    makeFolder(backup / "kept");
    writeFile(live / "kept" / "extra" / "inner" / "deep.txt", "deep");
    writeFile(live / "kept" / "extra" / "file.txt", "file");
    makeSymlink("file.txt", live / "kept" / "extra" / "link");
    writeFile(outside / "victim.txt", "must survive");
    writeFile(outside / "inner" / "deep.txt", "must survive too");
    makeSymlink(outside.native(), live / "portal");

    EXPECT_EQ(prepare(), "0 files, 0 bytes");

    EXPECT_EQ(itemAt(live / "kept" / "extra"), "missing");
    EXPECT_EQ(itemAt(live / "kept"), "folder");
    EXPECT_EQ(itemAt(live / "portal"), "missing");
    EXPECT_EQ(readFile(outside / "victim.txt"), "must survive");
    EXPECT_EQ(readFile(outside / "inner" / "deep.txt"), "must survive too");
}

TEST_F(RestorePreparationTest, ItemsOfAnotherKindThanInTheBackupMakeWayLeavingLinkTargetsAlone)
{
    writeDated(backup / "folder to file", "a file in the backup");
    writeDated(live / "folder to file" / "inside.txt", "inside");
    setModified(live / "folder to file", kBackupTime); // the same time must not keep a folder for a file
    writeFile(backup / "file to folder" / "a.txt", "abc");
    writeFile(backup / "file to folder" / "sub" / "b.txt", "defgh");
    writeDated(live / "file to folder", "a file in the live folder");
    // A link named like a backup folder, to a folder outside that holds what the backup's folder lacks.
    writeFile(backup / "docs" / "a.txt", "from backup");
    writeFile(backup / "docs" / "b.txt", "also from backup");
    writeFile(outside / "victim.txt", "the backup's docs folder lacks this");
    writeFile(outside / "a.txt", "the target's own a.txt");
    makeSymlink(outside.native(), live / "docs");
    // Made within the same clock tick, the link could carry the backup folder's very time, which keeps it.
    setModified(live / "docs", kBackupTime);

    EXPECT_EQ(prepare(), "5 files, 55 bytes");
    for (const char* name : {"folder to file", "file to folder", "docs"})
        EXPECT_EQ(itemAt(live / name), "missing") << name;

    EXPECT_EQ(copyBack(), 5);
    EXPECT_EQ(readFile(live / "folder to file"), "a file in the backup");
    EXPECT_EQ(itemAt(live / "folder to file"), kBackupFile);
    EXPECT_EQ(readFile(live / "file to folder" / "a.txt"), "abc");
    EXPECT_EQ(readFile(live / "file to folder" / "sub" / "b.txt"), "defgh");
    EXPECT_EQ(itemAt(live / "docs"), "folder");
    EXPECT_EQ(readFile(live / "docs" / "a.txt"), "from backup");
    EXPECT_EQ(readFile(outside / "victim.txt"), "the backup's docs folder lacks this");
    EXPECT_EQ(readFile(outside / "a.txt"), "the target's own a.txt");
    EXPECT_EQ(itemAt(outside / "b.txt"), "missing");
}

TEST_F(RestorePreparationTest, HiddenLiveItemsStayAndTheBackupsHiddenFilesButDsStoreComeBack)
{
    makeFolder(backup / "Numbers");
    writeDated(backup / ".settings", "backup's");
    writeDated(live / ".settings", "live's, changed since", {kBackupTime.tv_sec + 60, 0});
    writeFile(live / ".only-live", "hidden file");
    writeFile(live / ".cache" / "not-in-backup.txt", "would be pruned if the folder were entered");
    writeFile(live / ".cache" / "sub" / "deeper.txt", "deeper");
    writeFile(live / "Numbers" / ".lock", "hidden inside a kept folder");
    writeFile(backup / ".DS_Store", std::string(100, 'd'));
    writeFile(backup / "Keynote" / ".DS_Store", std::string(50, 'd'));
    writeFile(backup / "Keynote" / ".hidden", "1234567");

    EXPECT_EQ(prepare(), "1 files, 7 bytes");
    EXPECT_EQ(copyBack(), 1);

    EXPECT_EQ(readFile(live / ".settings"), "live's, changed since");
    EXPECT_EQ(readFile(live / ".only-live"), "hidden file");
    EXPECT_EQ(readFile(live / ".cache" / "not-in-backup.txt"), "would be pruned if the folder were entered");
    EXPECT_EQ(readFile(live / ".cache" / "sub" / "deeper.txt"), "deeper");
    EXPECT_EQ(readFile(live / "Numbers" / ".lock"), "hidden inside a kept folder");
    EXPECT_EQ(readFile(live / "Keynote" / ".hidden"), "1234567");
    EXPECT_EQ(itemAt(live / ".DS_Store"), "missing");
    EXPECT_EQ(itemAt(live / "Keynote" / ".DS_Store"), "missing");
}

// Containers are pruned and counted side by side: every one of them has to end up right, and the count
// has to add up over all of them.
TEST_F(RestorePreparationTest, EveryContainerIsPrunedAndCountedWhenThereAreMany)
{
    constexpr int kContainers = 16;
    for (int i = 0; i < kContainers; ++i) {
        const std::string container = "container" + std::to_string(i);
        writeDated(backup / container / "kept.txt", "kept");
        writeDated(live / container / "kept.txt", "kept");
        writeDated(backup / container / "deep" / "edited.txt", "backup");
        writeFile(live / container / "deep" / "edited.txt", "edited live");
        writeFile(backup / container / "deep" / "missing.txt", std::string(static_cast<std::size_t>(i), 'm'));
        writeFile(live / container / "added" / "new.txt", "added live");
    }
    writeFile(live / "only-live" / "x.txt", "x");
    writeFile(backup / "only-backup" / "y.txt", "yy");

    // Per container the edited and the missing file, and the folder only the backup has.
    EXPECT_EQ(prepare(),
              describe({6u * kContainers + (kContainers - 1) * kContainers / 2 + 2, 2 * kContainers + 1}));

    for (int i = 0; i < kContainers; ++i) {
        const fs::path container = live / ("container" + std::to_string(i));
        EXPECT_EQ(itemAt(container / "kept.txt"), kBackupFile) << i;
        EXPECT_EQ(itemAt(container / "deep" / "edited.txt"), "missing") << i;
        EXPECT_EQ(itemAt(container / "added"), "missing") << i;
    }
    EXPECT_EQ(itemAt(live / "only-live"), "missing");
}

TEST_F(RestorePreparationTest, ACancelBeforehandRemovesNothingAndCountsNothing)
{
    writeFile(live / "extra.txt", "extra");
    writeFile(live / "folder" / "inner.txt", "inner");
    writeFile(backup / "a.txt", "aaa");
    writeFile(backup / "folder" / "b.txt", "bbb");
    canceled = true;

    EXPECT_EQ(prepare(), "0 files, 0 bytes");

    EXPECT_EQ(readFile(live / "extra.txt"), "extra");
    EXPECT_EQ(readFile(live / "folder" / "inner.txt"), "inner");
}

TEST_F(RestorePreparationTest, NamesThatAreNotUtf8AreMatchedByTheirBytes)
{
    const std::string folder = "r\xe9sum\xe9";
    writeDated(backup / folder / "same\xff.bin", "same");
    writeFile(backup / folder / "new\x80.txt", "12345");
    writeDated(live / folder / "same\xff.bin", "same");
    writeFile(live / "caf\xe9.txt", "not in the backup");
    writeFile(live / "dossier \xe0 part" / "x.txt", "not in the backup either");

    EXPECT_EQ(prepare(), "1 files, 5 bytes");
    EXPECT_EQ(itemAt(live / folder / "same\xff.bin"), kBackupFile);
    EXPECT_EQ(itemAt(live / "caf\xe9.txt"), "missing");
    EXPECT_EQ(itemAt(live / "dossier \xe0 part"), "missing");

    EXPECT_EQ(copyBack(), 1);
    EXPECT_EQ(readFile(live / folder / "new\x80.txt"), "12345");
}

// The prune runs as a user the permission bits apply to: root would read the locked folders anyway.
TEST_F(RestorePreparationTest, WhatTheBackupCannotVouchForIsKept)
{
    writeFile(live / "Locked" / "doc.txt", "edited since the backup");
    writeFile(live / "Locked" / "sub" / "inner.txt", "inner");
    writeFile(backup / "Locked" / "doc.txt", "backup's");
    writeFile(live / "Unsearchable" / "a.txt", "edited since the backup");
    writeFile(backup / "Unsearchable" / "a.txt", "backup's");
    writeFile(live / "Open" / "extra.txt", "not in the backup");
    makeFolder(backup / "Open");
    writeFile(live / "gone.txt", "not in the backup");
    ::chmod(home.path().c_str(), 0755);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(live))
        ::lchown(entry.path().c_str(), 65534, 65534);
    ::chown(live.c_str(), 65534, 65534);
    ::chmod((backup / "Locked").c_str(), 0);
    ::chmod((backup / "Unsearchable").c_str(), 0444); // listed, but no item in it can be looked at
    auto pruneUnprivileged = [&] {
        return runUnprivileged(
            [&] { return summary(RestorePreparation::pruneLiveFolder(live, backup, canceled)); });
    };

    ::chmod(backup.c_str(), 0);
    const std::optional<std::string> unreadable = pruneUnprivileged();
    if (!unreadable)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*unreadable, "unreadable, 0 trashed");
    for (const char* file :
         {"Locked/doc.txt", "Locked/sub/inner.txt", "Unsearchable/a.txt", "Open/extra.txt", "gone.txt"})
        EXPECT_NE(itemAt(live / file), "missing") << file;

    ::chmod(backup.c_str(), 0755);
    const std::string eacces = std::to_string(EACCES);
    EXPECT_EQ(pruneUnprivileged(), "readable, 0 trashed; kept: fstatat Unsearchable/a.txt " + eacces +
                                       "; kept: openat Locked " + eacces);
    EXPECT_EQ(readFile(live / "Locked" / "doc.txt"), "edited since the backup");
    EXPECT_EQ(readFile(live / "Locked" / "sub" / "inner.txt"), "inner");
    EXPECT_EQ(readFile(live / "Unsearchable" / "a.txt"), "edited since the backup");
    EXPECT_EQ(itemAt(live / "Open" / "extra.txt"), "missing");
    EXPECT_EQ(itemAt(live / "gone.txt"), "missing");
    EXPECT_EQ(itemAt(live / "Open"), "folder");
}

TEST_F(RestorePreparationTest, WhatGoesLandsInTheTrashOnceEachAndCanBePutBack)
{
    Trash trash(home.dataHome());
    writeDated(backup / "Pages" / "letter.pages", "as backed up");
    writeDated(live / "Pages" / "letter.pages", "edited since", {kBackupTime.tv_sec + 1, 0});
    writeFile(live / "Drafts" / "a.txt", "a");
    writeFile(live / "Drafts" / "sub" / "b.txt", "b");
    const std::string spaced = "R\xc3\xa9sum\xc3\xa9 100%.txt";
    writeFile(live / spaced, "only live");
    const std::time_t before = std::time(nullptr);

    EXPECT_EQ(prepare({.trash = &trash, .neverPrune = {}}), "1 files, 12 bytes");
    EXPECT_EQ(summary(pruned), "readable, 3 trashed");

    const fs::path trashFolder = home.dataHome() / "Trash";
    for (const char* folder : {"files", "info"}) {
        struct stat status {};
        ASSERT_EQ(::lstat((trashFolder / folder).c_str(), &status), 0) << folder;
        EXPECT_EQ(status.st_mode & 07777, 0700u) << folder;
    }
    EXPECT_EQ(readFile(trashFolder / "files" / "letter.pages"), "edited since");
    EXPECT_EQ(readFile(trashFolder / "files" / "Drafts" / "sub" / "b.txt"), "b");
    std::vector<std::string> entries;
    for (const fs::directory_entry& entry : fs::directory_iterator(trashFolder / "files"))
        entries.push_back(entry.path().filename().native());
    EXPECT_THAT(entries, ::testing::UnorderedElementsAre("letter.pages", "Drafts", spaced));

    // Every byte beyond the unreserved ones is escaped, "/" is not; the date is local time.
    const std::string info = readFile(trashFolder / "info" / (spaced + ".trashinfo"));
    const std::string expectedStart = "[Trash Info]\nPath=" + home.path().native() +
                                      "/Mobile%20Documents/R%C3%A9sum%C3%A9%20100%25.txt\nDeletionDate=";
    ASSERT_TRUE(info.starts_with(expectedStart)) << info;
    const std::string date = info.substr(expectedStart.size());
    std::tm deleted {};
    const char* rest = ::strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &deleted);
    ASSERT_NE(rest, nullptr) << date;
    EXPECT_STREQ(rest, "\n");
    deleted.tm_isdst = -1;
    const std::time_t deletedAt = std::mktime(&deleted);
    EXPECT_GE(deletedAt, before);
    EXPECT_LE(deletedAt, std::time(nullptr));

    EXPECT_EQ(copyBack(), 1);
    EXPECT_EQ(readFile(live / "Pages" / "letter.pages"), "as backed up");

    // Where no trash can be used, an item is removed for good, and the outcome names it.
    writeFile(home.path() / "not a folder", "");
    Trash unusable(home.path() / "not a folder" / "share");
    writeFile(live / "late.txt", "not in the backup");
    EXPECT_EQ(summary(RestorePreparation::pruneLiveFolder(live, backup, canceled,
                                                          {.trash = &unusable, .neverPrune = {}})),
              "readable, 0 trashed; removed for good: mkdir late.txt " + std::to_string(Trash::kNoTrash));
    EXPECT_EQ(itemAt(live / "late.txt"), "missing");

    ASSERT_EQ(::rename((trashFolder / "files" / spaced).c_str(), (live / spaced).c_str()), 0);
    ASSERT_EQ(::rename((trashFolder / "files" / "Drafts").c_str(), (live / "Drafts").c_str()), 0);
    EXPECT_EQ(readFile(live / spaced), "only live");
    EXPECT_EQ(readFile(live / "Drafts" / "a.txt"), "a");
    EXPECT_EQ(readFile(live / "Drafts" / "sub" / "b.txt"), "b");
}

// What the backup never held cannot be put back: it stays, and so do the folders on the way to it,
// while what else they hold is judged as usual.
TEST_F(RestorePreparationTest, ItemsTheBackupNeverHeldStayWithTheirFolders)
{
    makeFolder(backup / "Numbers");
    writeFile(live / "Numbers" / "big.numbers", "could not be read at backup time");
    writeFile(live / "Numbers" / "other.txt", "not in the backup");
    // The copier makes the folder it could not read, empty: what is in it must not be judged by that.
    makeFolder(backup / "Pages" / "unreadable");
    writeFile(live / "Pages" / "unreadable" / "doc.pages", "never backed up");
    // A folder the backup could not even make, under one it lacks as well.
    writeFile(live / "Keynote" / "Locked" / "inner" / "a.key", "never backed up");
    writeFile(live / "Keynote" / "Locked" / "stray.txt", "not in the backup");
    writeFile(live / "Keynote" / "other.txt", "not in the backup");
    writeFile(live / "Trashed" / "x.txt", "not in the backup");

    EXPECT_EQ(prepare({.neverPrune = {"Numbers/big.numbers", "Pages/unreadable/", "Keynote/Locked/inner"}}),
              "0 files, 0 bytes");
    EXPECT_EQ(summary(pruned), "readable, 0 trashed");

    EXPECT_EQ(readFile(live / "Numbers" / "big.numbers"), "could not be read at backup time");
    EXPECT_EQ(readFile(live / "Pages" / "unreadable" / "doc.pages"), "never backed up");
    EXPECT_EQ(readFile(live / "Keynote" / "Locked" / "inner" / "a.key"), "never backed up");
    for (const char* gone : {"Numbers/other.txt", "Keynote/Locked/stray.txt", "Keynote/other.txt", "Trashed"})
        EXPECT_EQ(itemAt(live / gone), "missing") << gone;
}

} // namespace
