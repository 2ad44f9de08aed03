#include "engine/DirectoryCopier.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

void setTimes(const fs::path& path, timespec accessed, timespec modified)
{
    const timespec times[2] = {accessed, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// What a copy must keep of one item: its kind, permission bits, modification time to the nanosecond, and
// its content or link target.
std::string describe(const fs::path& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return "missing";
    const std::string common = std::to_string(status.st_mode & 07777) + " " +
                               std::to_string(status.st_mtim.tv_sec) + "." +
                               std::to_string(status.st_mtim.tv_nsec);
    if (S_ISDIR(status.st_mode))
        return "folder " + common;
    if (S_ISLNK(status.st_mode))
        return "link " + common + " -> " + fs::read_symlink(path).native();
    return "file " + common + " " + readFile(path);
}

// Every item below `root` (never through a link), by path relative to it.
std::map<std::string, std::string> snapshot(const fs::path& root)
{
    std::map<std::string, std::string> items;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
        items[entry.path().lexically_relative(root).native()] = describe(entry.path());
    return items;
}

std::set<std::string> regularFilesBelow(const fs::path& root)
{
    std::set<std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && !entry.is_symlink())
            files.insert(entry.path().lexically_relative(root).native());
    }
    return files;
}

// The names of a folder in the order the file system lists them, as an independent reference.
std::vector<std::string> listingOrder(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().native());
    return names;
}

int openDescriptorCount()
{
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// A short path to an open folder, however deep the folder lies.
fs::path pathOf(int folderFd)
{
    return "/proc/self/fd/" + std::to_string(folderFd);
}

class DirectoryCopierTest : public ::testing::Test {
protected:
    fs::path source() const { return home.path() / "Mobile Documents"; }
    fs::path destination() const { return home.path() / "backups" / "2026.11.22-10.00.00"; }

    CopyOutcome copy(const std::function<void(const fs::path&)>& alsoOnProgress = {})
    {
        return DirectoryCopier::copyDirectoryAtPath(
            source(), destination(), cancel,
            [&](const fs::path& copied) {
                progress.push_back(copied);
                if (alsoOnProgress)
                    alsoOnProgress(copied);
            },
            &abandon);
    }

    // Relative to the source, sorted.
    std::vector<std::string> progressRelative() const
    {
        std::vector<std::string> names;
        for (const fs::path& copied : progress)
            names.push_back(copied.lexically_relative(source()).native());
        std::sort(names.begin(), names.end());
        return names;
    }

    TestHome home;
    std::atomic<bool> cancel{false};
    std::atomic<bool> abandon{false};
    std::vector<fs::path> progress;
};

// As "path call errno", sorted: the order of the listing is the file system's.
std::vector<std::string> notCopied(const CopyOutcome& outcome)
{
    std::vector<std::string> items;
    for (const FsError& item : outcome.notCopied)
        items.push_back(item.path.native() + " " + item.operation + " " + std::to_string(item.code));
    std::sort(items.begin(), items.end());
    return items;
}

std::string endingOf(const CopyOutcome& outcome)
{
    switch (outcome.ending) {
    case CopyOutcome::Ending::Finished:
        return "finished";
    case CopyOutcome::Ending::Cancelled:
        return "cancelled";
    case CopyOutcome::Ending::OutOfSpace:
        return "out of space";
    }
    return "?";
}

TEST_F(DirectoryCopierTest, CopiesEveryItemWithItsPermissionsTimesAndLinkTargetsButNoFinderClutter)
{
    writeFile(source() / "notes.txt", "hello");
    writeFile(source() / ".hidden", "hidden");
    writeFile(source() / std::string("caf\xe9 menu.txt"), "not UTF-8");
    writeFile(source() / "Pages" / "Report.pages" / "Index.zip", std::string(300 * 1024, '\x7f'));
    writeFile(source() / "script.sh", "#!/bin/sh\n");
    writeFile(source() / "read-only" / "inside.txt", "inside");
    makeFolder(source() / "empty");
    makeSymlink("notes.txt", source() / "to-file");
    makeSymlink("Pages", source() / "to-folder");
    makeSymlink("nowhere/missing", source() / "dangling");
    writeFile(source() / ".DS_Store", "clutter");
    writeFile(source() / "Pages" / "Report.pages" / ".DS_Store", "clutter");
    writeFile(source() / "c" / ".DS_Store" / "inside", "a folder of that name is not entered");
    ::chmod((source() / "notes.txt").c_str(), 0600);
    ::chmod((source() / "script.sh").c_str(), 0755);
    ::chmod((source() / "Pages").c_str(), 0750);
    int second = 1;
    for (const fs::path& item :
         {source() / "notes.txt", source() / "to-file", source() / "Pages" / "Report.pages",
          source() / "Pages", source() / "read-only", source() / "empty", source() / "c", source()})
        setTimes(item, {1600000000, 1}, {1700000000 + second++, 123456789});
    ::chmod((source() / "read-only").c_str(), 0555);
    std::map<std::string, std::string> expected = snapshot(source());
    std::erase_if(expected,
                  [](const auto& item) { return item.first.find(".DS_Store") != std::string::npos; });

    const CopyOutcome outcome = copy();

    EXPECT_EQ(endingOf(outcome), "finished");
    EXPECT_THAT(notCopied(outcome), ElementsAre());
    EXPECT_EQ(snapshot(destination()), expected);
    EXPECT_EQ(describe(destination()), describe(source()));
    // Folders alone report no progress.
    EXPECT_THAT(progressRelative(),
                UnorderedElementsAre("notes.txt", ".hidden", "caf\xe9 menu.txt",
                                     "Pages/Report.pages/Index.zip", "script.sh", "read-only/inside.txt",
                                     "to-file", "to-folder", "dangling"));
}

TEST_F(DirectoryCopierTest, WhatIsAlreadyAtTheDestinationIsLeftAsItIsAndNeverWrittenThrough)
{
    for (const char* name : {"same-name.txt", "over-dangling-link", "doc.txt", "sub/inner.txt", "docs/a.txt",
                             "docs/inner/b.txt"})
        writeFile(source() / name, "new");
    writeFile(source() / "fresh.txt", "fresh");
    writeFile(source() / "folder" / "inner.txt", "inner");
    writeFile(destination() / "same-name.txt", "old");
    setTimes(destination() / "same-name.txt", {1000000000, 1}, {1000000000, 2});
    makeSymlink("nowhere", destination() / "over-dangling-link");
    makeFolder(destination() / "folder");
    ::chmod((destination() / "folder").c_str(), 0750);
    const fs::path outsideFile = home.path() / "outside.txt";
    const fs::path outsideFolder = home.path() / "outside-folder";
    writeFile(outsideFile, "outside");
    makeFolder(outsideFolder);
    makeSymlink(outsideFile.native(), destination() / "doc.txt");
    makeSymlink(outsideFolder.native(), destination() / "sub");
    writeFile(destination() / "docs", "a file where a folder would go");
    const std::string before = describe(destination() / "same-name.txt");

    const CopyOutcome outcome = copy();

    EXPECT_EQ(describe(destination() / "same-name.txt"), before);
    EXPECT_EQ(fs::read_symlink(destination() / "over-dangling-link").native(), "nowhere");
    EXPECT_EQ(readFile(destination() / "fresh.txt"), "fresh");
    // An existing folder is entered, and keeps its own permissions.
    EXPECT_EQ(readFile(destination() / "folder" / "inner.txt"), "inner");
    EXPECT_EQ(fs::status(destination() / "folder").permissions(), fs::perms(0750));
    EXPECT_EQ(readFile(outsideFile), "outside");
    EXPECT_TRUE(fs::is_empty(outsideFolder));
    EXPECT_EQ(fs::read_symlink(destination() / "doc.txt").native(), outsideFile.native());
    EXPECT_EQ(fs::read_symlink(destination() / "sub").native(), outsideFolder.native());
    EXPECT_EQ(readFile(destination() / "docs"), "a file where a folder would go");
    // A folder that cannot be made at the destination is one item missing, whatever it holds: nothing in
    // it is even tried. Items already there are not missing.
    EXPECT_EQ(endingOf(outcome), "finished");
    EXPECT_THAT(notCopied(outcome), ElementsAre("docs openat " + std::to_string(ENOTDIR),
                                                "sub openat " + std::to_string(ENOTDIR)));
    EXPECT_THAT(progressRelative(), ElementsAre("folder/inner.txt", "fresh.txt"));
}

TEST_F(DirectoryCopierTest, ADestinationThatIsAFileIsTheOneItemMissingAndNothingIsTried)
{
    writeFile(source() / "a.txt", "a");
    writeFile(source() / "d" / "b.txt", "b");
    writeFile(destination(), "I am a file");

    const CopyOutcome outcome = copy();

    EXPECT_EQ(readFile(destination()), "I am a file");
    EXPECT_EQ(endingOf(outcome), "finished");
    EXPECT_THAT(notCopied(outcome), ElementsAre(" open " + std::to_string(ENOTDIR)));
    EXPECT_TRUE(progress.empty());
}

TEST_F(DirectoryCopierTest, ACancelStopsTheWholeWalkRightAfterTheNextCopyButNotWhenNothingIsLeftToCopy)
{
    writeFile(source() / "first.txt", "x");
    writeFile(source() / "already-there.txt", "x");
    writeFile(source() / "later" / ".DS_Store", "x");
    makeFolder(source() / "empty");
    writeFile(destination() / "already-there.txt", "x");

    EXPECT_EQ(endingOf(copy([&](const fs::path&) { cancel = true; })), "finished");
    EXPECT_THAT(progressRelative(), ElementsAre("first.txt"));

    // Still set, and now first.txt is at the destination too: no copy is attempted, so nothing stops.
    progress.clear();
    EXPECT_EQ(endingOf(copy()), "finished");
    EXPECT_TRUE(progress.empty());

    cancel = false;
    for (int i = 0; i < 6; ++i) {
        writeFile(source() / ("top" + std::to_string(i)), "x");
        writeFile(source() / "sub" / ("inner" + std::to_string(i)), "x");
    }
    // Asked for inside the sub-folder: the folders above must stop too.
    const CopyOutcome outcome =
        copy([&](const fs::path& copied) { cancel = copied.parent_path() == source() / "sub"; });
    EXPECT_EQ(endingOf(outcome), "cancelled");
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().parent_path(), source() / "sub");
    EXPECT_EQ(regularFilesBelow(destination()).size(), 2 + progress.size() + 1);
}

TEST_F(DirectoryCopierTest, AQuitStopsTheWalkBeforeTheNextEntryAndLeavesNoPartialFile)
{
    for (int i = 0; i < 4; ++i)
        writeFile(source() / ("big" + std::to_string(i)), std::string(2 * 1024 * 1024, 'b'));
    writeFile(source() / "sub" / "inner", "x");

    const CopyOutcome outcome = copy([&](const fs::path&) { abandon = true; });

    EXPECT_EQ(endingOf(outcome), "cancelled");
    ASSERT_EQ(progress.size(), 1u);
    const fs::path first = progress.front().lexically_relative(source());
    // The first item copied is the only one: every other file, in whatever folder, is left out whole.
    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{first.native()}));
    EXPECT_EQ(readFile(destination() / first), readFile(source() / first));
}

TEST_F(DirectoryCopierTest, WhatCannotBeCopiedIsListedAndTheWalkGoesOn)
{
    writeFile(source() / "readable.txt", "r");
    writeFile(source() / "sub" / "locked.txt", "l");
    writeFile(source() / "sub" / "locked-folder" / "inside.txt", "i");
    writeFile(source() / "z" / "after.txt", "a");
    ASSERT_EQ(::mknod((source() / "socket").c_str(), S_IFSOCK | 0666, 0), 0);
    ::chmod((source() / "sub" / "locked.txt").c_str(), 0);
    ::chmod((source() / "sub" / "locked-folder").c_str(), 0);
    ::chmod(home.path().c_str(), 0755);
    makeFolder(home.path() / "backups");
    ::chmod((home.path() / "backups").c_str(), 0777);

    const std::optional<std::string> answer = runUnprivileged([&] {
        const CopyOutcome outcome = copy();
        std::string summary = endingOf(outcome) + ";";
        for (const std::string& item : notCopied(outcome))
            summary += " " + item + ";";
        for (const std::string& name : progressRelative())
            summary += " " + name;
        return summary;
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";

    // A failed copy still counts as a step; the locked folder gives an empty copy.
    const std::string eacces = std::to_string(EACCES);
    EXPECT_EQ(*answer, "finished; socket copy socket " + std::to_string(ENOTSUP) +
                           "; sub/locked-folder openat " + eacces + "; sub/locked.txt openat " + eacces +
                           "; readable.txt socket sub/locked.txt z/after.txt");
    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{"readable.txt", "z/after.txt"}));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(destination() / "sub" / "locked-folder")));
}

TEST_F(DirectoryCopierTest, ItemsThatVanishMidWalkArePassedOver)
{
    for (int i = 0; i < 10; ++i) {
        writeFile(source() / ("file" + std::to_string(i)), "content");
        writeFile(source() / ("folder" + std::to_string(i)) / "inner", "content");
    }

    // The first copy takes everything else away: all of it was listed already. What is gone is not
    // missing from the copy.
    fs::path first;
    const CopyOutcome outcome = copy([&](const fs::path& copied) {
        if (!first.empty())
            return;
        first = copied.lexically_relative(source());
        for (const std::string& name : listingOrder(source())) {
            if (name != first.begin()->native())
                removeTree(source() / name);
        }
    });

    EXPECT_EQ(endingOf(outcome), "finished");
    EXPECT_THAT(notCopied(outcome), ElementsAre());
    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{first.native()}));
    EXPECT_EQ(readFile(destination() / first), "content");
}

TEST_F(DirectoryCopierTest, CopiesTreesDeeperThanPathMax)
{
    const std::string name(200, 'n');
    const int depth = 24; // 24 * 201 bytes, well past PATH_MAX
    makeFolder(source());
    const int deepest = makeDeepChain(source(), name.c_str(), depth);
    writeFile(pathOf(deepest) / "leaf.txt", "at the bottom");
    ::close(deepest);

    EXPECT_EQ(endingOf(copy()), "finished");

    const int copied = makeDeepChain(destination(), name.c_str(), depth);
    EXPECT_EQ(readFile(pathOf(copied) / "leaf.txt"), "at the bottom");
    ::close(copied);
    std::string expectedPath = source().native();
    for (int level = 0; level < depth; ++level)
        expectedPath += "/" + name;
    EXPECT_GT(expectedPath.size(), std::size_t(PATH_MAX));
    EXPECT_THAT(progress, ElementsAre(fs::path(expectedPath + "/leaf.txt")));
}

TEST_F(DirectoryCopierTest, DeepTreesAreCopiedDepthFirstInListingOrderWithFewDescriptorsOpen)
{
    // A chain folder name that this file system lists before some of the files, so that the walk comes
    // back to folders whose descriptors it gave up and still has entries to copy there.
    for (int i = 0; i < 10; ++i) {
        writeFile(home.path() / "probe" / ("f" + std::to_string(i)), "");
        makeFolder(home.path() / "probe" / ("n" + std::to_string(i)));
    }
    const std::vector<std::string> order = listingOrder(home.path() / "probe");
    const auto afterLastFile =
        std::find_if(order.rbegin(), order.rend(), [](auto& n) { return n[0] == 'f'; }).base();
    const auto chain = std::find_if(order.begin(), afterLastFile, [](auto& n) { return n[0] == 'n'; });
    ASSERT_NE(chain, afterLastFile);

    const int depth = static_cast<int>(DirectoryCopier::kMaxHeldLevels) * 2 + 10;
    fs::path folder = source();
    for (int level = 0; level < depth; ++level, folder /= *chain) {
        for (int i = 0; i < 10; ++i) {
            writeFile(folder / ("f" + std::to_string(i)), std::to_string(level));
            if (*chain == "n" + std::to_string(i)) // made among the files where the probe made it
                makeFolder(folder / *chain);
        }
    }
    const std::map<std::string, std::string> original = snapshot(source());
    // Depth first in the listing order, as an independent reference.
    std::vector<fs::path> expected;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(source())) {
        if (!entry.is_directory())
            expected.push_back(entry.path());
    }
    ASSERT_EQ(expected.size(), std::size_t(depth) * 10);
    ASSERT_FALSE(std::is_sorted(expected.begin(), expected.end()))
        << "this file system lists names sorted: the order cannot be told apart";
    const int descriptorsBefore = openDescriptorCount();

    int mostDescriptors = 0;
    const CopyOutcome outcome =
        copy([&](const fs::path&) { mostDescriptors = std::max(mostDescriptors, openDescriptorCount()); });

    EXPECT_EQ(endingOf(outcome), "finished");
    EXPECT_THAT(notCopied(outcome), ElementsAre());
    EXPECT_EQ(progress, expected);
    EXPECT_EQ(snapshot(destination()), original);
    EXPECT_LE(mostDescriptors - descriptorsBefore, static_cast<int>(DirectoryCopier::kMaxHeldLevels) * 2 + 4);
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST_F(DirectoryCopierTest, ADiskThatFillsUpStopsTheWalkAtOnceAndLeavesNoTruncatedFile)
{
    const fs::path backups = home.path() / "backups";
    makeFolder(backups);
    if (::mount("tmpfs", backups.c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(backups.c_str(), MNT_DETACH); });
    const int files = 64; // 1 MiB in all, four times what fits
    for (int i = 0; i < files; ++i)
        writeFile(source() / ("folder" + std::to_string(i % 4)) / ("file" + std::to_string(i)),
                  std::string(16 * 1024, static_cast<char>('a' + i % 26)));

    const CopyOutcome outcome = copy();

    EXPECT_EQ(endingOf(outcome), "out of space");
    const std::set<std::string> copied = regularFilesBelow(destination());
    EXPECT_GT(copied.size(), 0u);
    EXPECT_LT(copied.size(), std::size_t(files));
    // Every copy tried was a whole copy: the one that found the disk full was the last one tried.
    EXPECT_EQ(progress.size(), copied.size());
    for (const std::string& name : copied)
        EXPECT_EQ(readFile(destination() / name), readFile(source() / name)) << name;
}

} // namespace
