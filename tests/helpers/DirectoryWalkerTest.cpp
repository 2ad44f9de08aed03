#include "Helpers/DirectoryWalker.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;
using ::testing::UnorderedElementsAre;

namespace {

class DirectoryWalkerTest : public ::testing::Test {
protected:
    fs::path root() const { return home.path() / "root"; }

    // Every entry as "depth:name" plus "/" for folders.
    std::multiset<std::string> walkAll(const DirectoryWalker::Visitor& extra = {})
    {
        std::multiset<std::string> seen;
        DirectoryWalker::walk(
            root(),
            [&](const WalkEntry& entry) {
                seen.insert(std::to_string(entry.depth) + ":" + entry.name + (entry.isDirectory ? "/" : ""));
                return extra ? extra(entry) : WalkAction::Continue;
            },
            [&](const FsError& error) { errors.push_back(error); });
        return seen;
    }

    TestHome home;
    std::vector<FsError> errors;
};

TEST_F(DirectoryWalkerTest, VisitsEveryEntryIncludingHiddenOnesAndNeverFollowsLinks)
{
    writeFile(root() / "a" / "b" / "c.txt", "c");
    writeFile(root() / ".hidden" / "h", "h");
    writeFile(home.path() / "elsewhere" / "not-visited", "x");
    makeSymlink((home.path() / "elsewhere").string(), root() / "link");

    EXPECT_THAT(walkAll(), UnorderedElementsAre("1:a/", "2:b/", "3:c.txt", "1:.hidden/", "2:h", "1:link"));
    EXPECT_TRUE(errors.empty());
}

TEST_F(DirectoryWalkerTest, SkipDescendantsAndStopAreHonoured)
{
    writeFile(root() / "skip" / "inside", "x");
    writeFile(root() / "keep" / "inside", "x");

    auto seen = walkAll([](const WalkEntry& entry) {
        return std::string(entry.name) == "skip" ? WalkAction::SkipDescendants : WalkAction::Continue;
    });
    EXPECT_THAT(seen, UnorderedElementsAre("1:skip/", "1:keep/", "2:inside"));

    int visits = 0;
    DirectoryWalker::walk(root(), [&](const WalkEntry&) {
        ++visits;
        return WalkAction::Stop;
    });
    EXPECT_EQ(visits, 1);
}

TEST_F(DirectoryWalkerTest, EntriesThatVanishMidWalkArePassedOverAndReported)
{
    for (int i = 0; i < 50; ++i)
        writeFile(root() / ("folder" + std::to_string(i)) / "file", "x");

    // The first visit removes every folder: all of them were listed already, none can be opened.
    bool removed = false;
    auto seen = walkAll([&](const WalkEntry&) {
        if (!removed) {
            removed = true;
            for (int i = 0; i < 50; ++i)
                removeTree(root() / ("folder" + std::to_string(i)));
        }
        return WalkAction::Continue;
    });

    EXPECT_EQ(seen.count("2:file"), 0u);
    ASSERT_EQ(errors.size(), 50u);
    EXPECT_EQ(errors.front().code, ENOENT);
    EXPECT_EQ(errors.front().path.parent_path(), root());
}

TEST_F(DirectoryWalkerTest, AFolderReplacedByALinkIsNotFollowed)
{
    writeFile(root() / "victim" / "file", "x");
    writeFile(home.path() / "outside" / "secret", "x");
    bool swapped = false;
    auto seen = walkAll([&](const WalkEntry&) {
        if (!swapped) {
            swapped = true;
            removeTree(root() / "victim");
            makeSymlink((home.path() / "outside").string(), root() / "victim");
        }
        return WalkAction::Continue;
    });
    EXPECT_EQ(seen.count("2:secret"), 0u);
    ASSERT_EQ(errors.size(), 1u);
    // O_NOFOLLOW with O_DIRECTORY refuses a link as ENOTDIR or ELOOP, depending on the kernel.
    EXPECT_THAT(errors.front().code, ::testing::AnyOf(ELOOP, ENOTDIR));
}

TEST_F(DirectoryWalkerTest, AFolderNamedInAnOpenFolderIsWalkedButALinkThereIsRefused)
{
    writeFile(root() / "container" / "inner" / "file", "x");
    writeFile(home.path() / "outside" / "secret", "x");
    makeSymlink((home.path() / "outside").string(), root() / "portal");
    const int rootFd = ::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(rootFd, 0);

    std::multiset<std::string> seen;
    auto record = [&](const WalkEntry& entry) {
        seen.insert(std::to_string(entry.depth) + ":" + entry.relativeFolder + "|" + entry.name);
        return WalkAction::Continue;
    };
    auto report = [&](const FsError& error) { errors.push_back(error); };
    EXPECT_TRUE(DirectoryWalker::walk(rootFd, "container", record, report));
    EXPECT_FALSE(DirectoryWalker::walk(rootFd, "portal", record, report));
    ::close(rootFd);

    EXPECT_THAT(seen, UnorderedElementsAre("1:|inner", "2:inner|file"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors.front().code, ::testing::AnyOf(ELOOP, ENOTDIR));
}

TEST_F(DirectoryWalkerTest, NamesAreReportedAsTheirRawBytes)
{
    writeFile(root() / std::string("caf\xe9"), "x");
    EXPECT_THAT(walkAll(), UnorderedElementsAre(std::string("1:caf\xe9")));
}

TEST_F(DirectoryWalkerTest, ARootThatCannotBeOpenedIsReportedAndWalksNothing)
{
    bool visited = false;
    EXPECT_FALSE(DirectoryWalker::walk(
        root() / "missing", [&](const WalkEntry&) { return visited = true, WalkAction::Continue; },
        [&](const FsError& error) { errors.push_back(error); }));
    EXPECT_FALSE(visited);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors.front().code, ENOENT);
}

TEST_F(DirectoryWalkerTest, DeepBranchingTreesKeepFewDescriptorsOpenAndMissNothing)
{
    makeFolder(root());
    // Each of 300 levels holds a file and a folder: far more levels than descriptors held.
    fs::path level = root();
    int chainFd = makeDeepChain(root(), "n", 300);
    ::close(chainFd);
    int files = 0;
    for (int depth = 0; depth < 40; ++depth) {
        writeFile(level / ("f" + std::to_string(depth)), "x");
        ++files;
        level /= "n";
    }
    int maxDescriptor = 0;
    int seenFiles = 0;
    walkAll([&](const WalkEntry& entry) {
        maxDescriptor = std::max(maxDescriptor, entry.parentFd);
        seenFiles += entry.isDirectory ? 0 : 1;
        return WalkAction::Continue;
    });
    EXPECT_EQ(seenFiles, files);
    EXPECT_TRUE(errors.empty());
    EXPECT_LT(maxDescriptor, static_cast<int>(DirectoryWalker::kMaxHeldDescriptors) + 32);
}

} // namespace
