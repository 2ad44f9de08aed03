#include "engine/DirectoryCopier.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <cerrno>
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

namespace {

std::set<std::string> regularFilesBelow(const fs::path& root)
{
    std::set<std::string> files;
    for (const auto& [name, description] : snapshot(root)) {
        if (description.starts_with("file "))
            files.insert(name);
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

// The ending, then every item not copied as "path call errno", sorted: the listing's order is the file
// system's.
std::string summary(const CopyOutcome& outcome)
{
    std::vector<std::string> items;
    for (const FsError& item : outcome.notCopied)
        items.push_back("; " + item.path.native() + " " + item.operation + " " + std::to_string(item.code));
    std::sort(items.begin(), items.end());
    std::string text = outcome.finished()                                 ? "finished"
                       : outcome.ending == CopyOutcome::Ending::Cancelled ? "cancelled"
                                                                          : "out of space";
    for (const std::string& item : items)
        text += item;
    return text;
}

class DirectoryCopierTest : public ::testing::Test {
protected:
    fs::path source() const { return home.path() / "Mobile Documents"; }
    fs::path destination() const { return home.path() / "backups" / "2026.11.22-10.00.00"; }

    CopyOutcome copy(const std::function<void(const fs::path&)>& alsoOnProgress = {}, fs::path to = {})
    {
        return DirectoryCopier::copyDirectoryAtPath(
            source(), to.empty() ? destination() : to, cancel,
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

TEST_F(DirectoryCopierTest, CopiesEveryItemWithItsPermissionsTimesAndLinkTargetsButNoFinderClutter)
{
    // A folder named like the clutter is not entered either.
    writeItems(source(), {"notes.txt=hello", ".hidden=hidden", "caf\xe9 menu.txt=not UTF-8", "empty=/",
                          "read-only/inside.txt=inside", "to-file=-> notes.txt", "to-folder=-> Pages",
                          "dangling=-> nowhere/missing", ".DS_Store=x", "Pages/Report.pages/.DS_Store=x",
                          "c/.DS_Store/inside=x"});
    writeFile(source() / "Pages" / "Report.pages" / "Index.zip", std::string(300 * 1024, '\x7f'));
    ::chmod((source() / "notes.txt").c_str(), 0600);
    ::chmod((source() / "Pages").c_str(), 0750);
    int second = 1;
    for (const char* item :
         {"notes.txt", "to-file", "Pages/Report.pages", "Pages", "read-only", "empty", "c", ""})
        setTimes(source() / item, {1700000000 + second++, 123456789});
    ::chmod((source() / "read-only").c_str(), 0555);
    std::map<std::string, std::string> expected = snapshot(source());
    std::erase_if(expected,
                  [](const auto& item) { return item.first.find(".DS_Store") != std::string::npos; });

    EXPECT_EQ(summary(copy()), "finished");

    EXPECT_EQ(snapshot(destination()), expected);
    EXPECT_EQ(describe(destination()), describe(source()));
    // Folders alone report no progress.
    EXPECT_THAT(progressRelative(),
                ElementsAre(".hidden", "Pages/Report.pages/Index.zip", "caf\xe9 menu.txt", "dangling",
                            "notes.txt", "read-only/inside.txt", "to-file", "to-folder"));
}

TEST_F(DirectoryCopierTest, WhatIsAlreadyAtTheDestinationIsLeftAsItIsAndNeverWrittenThrough)
{
    writeItems(source(),
               {"same-name.txt=new", "over-dangling-link=new", "doc.txt=new", "sub/inner.txt=new",
                "docs/a.txt=new", "docs/inner/b.txt=new", "fresh.txt=fresh", "folder/inner.txt=inner"});
    const fs::path outside = home.path() / "outside";
    writeItems(destination(), {"same-name.txt=old", "over-dangling-link=-> nowhere", "folder=/",
                               "doc.txt=-> " + (outside / "doc.txt").native(), "sub=-> " + outside.native(),
                               "docs=a file where a folder would go"});
    writeItems(outside, {"doc.txt=outside"});
    setTimes(destination() / "same-name.txt", {1000000000, 2});
    ::chmod((destination() / "folder").c_str(), 0750);
    const std::string sameName = describe(destination() / "same-name.txt");
    // An existing folder is entered, and keeps its own permissions.
    Items expected = contents(destination());
    expected.insert({"fresh.txt=fresh", "folder/inner.txt=inner"});

    // A folder that cannot be made at the destination is one item missing, whatever it holds: nothing in
    // it is even tried. Items already there are not missing.
    const std::string enotdir = " openat " + std::to_string(ENOTDIR);
    EXPECT_EQ(summary(copy()), "finished; docs" + enotdir + "; sub" + enotdir);

    EXPECT_EQ(contents(destination()), expected);
    EXPECT_EQ(describe(destination() / "same-name.txt"), sameName);
    EXPECT_EQ(fs::status(destination() / "folder").permissions(), fs::perms(0750));
    EXPECT_EQ(contents(outside), (Items{"doc.txt=outside"}));
    EXPECT_THAT(progressRelative(), ElementsAre("folder/inner.txt", "fresh.txt"));

    // A destination that is itself a file is the one item missing, and nothing is tried.
    progress.clear();
    writeFile(home.path() / "a file", "I am a file");
    EXPECT_EQ(summary(copy({}, home.path() / "a file")), "finished;  open " + std::to_string(ENOTDIR));
    EXPECT_EQ(readFile(home.path() / "a file"), "I am a file");
    EXPECT_TRUE(progress.empty());
}

TEST_F(DirectoryCopierTest, ACancelStopsTheWalkRightAfterTheNextCopyButNotWhenNothingIsLeftAndAQuitAtOnce)
{
    writeItems(source(), {"first.txt=x", "already-there.txt=x", "later/.DS_Store=x", "empty=/"});
    writeItems(destination(), {"already-there.txt=x"});

    EXPECT_EQ(summary(copy([&](const fs::path&) { cancel = true; })), "finished");
    EXPECT_THAT(progressRelative(), ElementsAre("first.txt"));

    // Still set, and now first.txt is at the destination too: no copy is attempted, so nothing stops.
    progress.clear();
    EXPECT_EQ(summary(copy()), "finished");
    EXPECT_TRUE(progress.empty());

    cancel = false;
    for (int i = 0; i < 6; ++i) {
        writeFile(source() / ("top" + std::to_string(i)), "x");
        writeFile(source() / "sub" / ("inner" + std::to_string(i)), "x");
    }
    // Asked for inside the sub-folder: the folders above must stop too.
    EXPECT_EQ(
        summary(copy([&](const fs::path& copied) { cancel = copied.parent_path() == source() / "sub"; })),
        "cancelled");
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().parent_path(), source() / "sub");
    EXPECT_EQ(regularFilesBelow(destination()).size(), 2 + progress.size() + 1);

    // A quit stops the walk before the next entry, in whatever folder: the first item copied is the only one.
    cancel = false;
    removeTree(destination());
    progress.clear();
    EXPECT_EQ(summary(copy([&](const fs::path&) { abandon = true; })), "cancelled");
    ASSERT_EQ(progress.size(), 1u);
    EXPECT_EQ(regularFilesBelow(destination()),
              (std::set<std::string>{progress.front().lexically_relative(source()).native()}));
}

TEST_F(DirectoryCopierTest, WhatCannotBeCopiedIsListedAndTheWalkGoesOn)
{
    writeItems(source(),
               {"readable.txt=r", "sub/locked.txt=l", "sub/locked-folder/inside.txt=i", "z/after.txt=a"});
    ASSERT_EQ(::mknod((source() / "socket").c_str(), S_IFSOCK | 0666, 0), 0);
    ::chmod((source() / "sub" / "locked.txt").c_str(), 0);
    ::chmod((source() / "sub" / "locked-folder").c_str(), 0);
    ::chmod(home.path().c_str(), 0755);
    makeFolder(home.path() / "backups");
    ::chmod((home.path() / "backups").c_str(), 0777);

    const std::optional<std::string> answer = runUnprivileged([&] {
        std::string text = summary(copy()) + ";";
        for (const std::string& name : progressRelative())
            text += " " + name;
        return text;
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";

    // A failed copy still counts as a step; the locked folder gives an empty copy.
    const std::string eacces = std::to_string(EACCES);
    EXPECT_EQ(*answer, "finished; socket copy socket " + std::to_string(ENOTSUP) +
                           "; sub/locked-folder openat " + eacces + "; sub/locked.txt openat " + eacces +
                           "; readable.txt socket sub/locked.txt z/after.txt");
    EXPECT_EQ(contents(destination()),
              (Items{"readable.txt=r", "sub=/", "sub/locked-folder=/", "z=/", "z/after.txt=a"}));
}

TEST_F(DirectoryCopierTest, ItemsThatVanishMidWalkArePassedOver)
{
    for (int i = 0; i < 10; ++i) {
        writeFile(source() / ("file" + std::to_string(i)), "content");
        writeFile(source() / ("folder" + std::to_string(i)) / "inner", "content");
    }

    // The first copy takes everything else away: all of it was listed already. What is gone is not
    // missing from the copy.
    EXPECT_EQ(summary(copy([&](const fs::path& copied) {
                  for (const std::string& name : listingOrder(source())) {
                      if (progress.size() == 1 &&
                          name != copied.lexically_relative(source()).begin()->native())
                          removeTree(source() / name);
                  }
              })),
              "finished");

    const fs::path first = progress.front().lexically_relative(source());
    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{first.native()}));
}

TEST_F(DirectoryCopierTest, CopiesTreesDeeperThanPathMax)
{
    const std::string name(200, 'n');
    const int depth = 24; // 24 * 201 bytes, well past PATH_MAX
    makeFolder(source());
    const int deepest = makeDeepChain(source(), name.c_str(), depth);
    writeFile("/proc/self/fd/" + std::to_string(deepest) + "/leaf.txt", "at the bottom"); // a short path
    ::close(deepest);

    EXPECT_EQ(summary(copy()), "finished");

    const int copied = makeDeepChain(destination(), name.c_str(), depth);
    EXPECT_EQ(readFile("/proc/self/fd/" + std::to_string(copied) + "/leaf.txt"), "at the bottom");
    ::close(copied);
    std::string expectedPath = source().native();
    for (int level = 0; level < depth; ++level)
        expectedPath += "/" + name;
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
    ASSERT_FALSE(std::is_sorted(expected.begin(), expected.end()))
        << "this file system lists names sorted: the order cannot be told apart";
    const int descriptorsBefore = openDescriptorCount();
    int mostDescriptors = 0;

    EXPECT_EQ(summary(copy([&](const fs::path&) {
                  mostDescriptors = std::max(mostDescriptors, openDescriptorCount());
              })),
              "finished");

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

    EXPECT_EQ(outcome.ending, CopyOutcome::Ending::OutOfSpace);
    const std::set<std::string> copied = regularFilesBelow(destination());
    EXPECT_GT(copied.size(), 0u);
    EXPECT_LT(copied.size(), std::size_t(files));
    // Every copy tried was a whole copy: the one that found the disk full was the last one tried.
    EXPECT_EQ(progress.size(), copied.size());
    for (const std::string& name : copied)
        EXPECT_EQ(readFile(destination() / name), readFile(source() / name)) << name;
}

} // namespace
