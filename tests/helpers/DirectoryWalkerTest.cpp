#include "Helpers/DirectoryWalker.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <set>
#include <sys/stat.h>
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

// Records the order of events around each folder; refuses to enter the folders named "closed".
class FolderLog : public DirectoryWalker::FolderObserver {
public:
    bool enterFolder(int fd, const std::string& relativeFolder) override
    {
        struct stat status {};
        events.push_back("enter " + relativeFolder + (::fstat(fd, &status) == 0 ? "" : " (bad fd)"));
        return relativeFolder.find("closed") == std::string::npos;
    }
    void leaveFolder(const std::string& relativeFolder) override { events.push_back("leave " + relativeFolder); }

    std::vector<std::string> events;
};

TEST_F(DirectoryWalkerTest, AnObservedFolderIsEnteredBeforeItsEntriesAndLeftAfterThem)
{
    writeFile(root() / "open" / "file", "x");
    writeFile(root() / "closed" / "hidden-by-refusal" / "deeper", "x");
    makeSymlink("file", root() / "open" / "link");
    FolderLog log;
    std::vector<std::string> entries;
    const int rootFd = ::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(rootFd, 0);

    DirectoryWalker::walkOpenFolder(
        rootFd, root(),
        [&](const WalkEntry& entry) {
            const char kind = entry.type == DT_DIR ? 'd' : entry.type == DT_LNK ? 'l' : entry.type == DT_REG ? 'f' : '?';
            log.events.push_back(std::string("entry ") + kind + " " + entry.relativePath().string());
            return WalkAction::Continue;
        },
        [&](const FsError& error) { errors.push_back(error); }, &log);

    // The root's two entries come in directory order; everything else is fixed by the walk.
    ASSERT_EQ(log.events.size(), 9u);
    EXPECT_EQ(log.events[0], "enter ");
    EXPECT_THAT(std::vector<std::string>(log.events.begin() + 1, log.events.begin() + 3),
                UnorderedElementsAre("entry d open", "entry d closed"));
    EXPECT_EQ(log.events[3], "leave ");
    const auto openAt = std::find(log.events.begin(), log.events.end(), "enter open");
    ASSERT_NE(openAt, log.events.end());
    EXPECT_THAT(std::vector<std::string>(openAt + 1, openAt + 3),
                UnorderedElementsAre("entry f open/file", "entry l open/link"));
    EXPECT_EQ(*(openAt + 3), "leave open");
    EXPECT_NE(std::find(log.events.begin(), log.events.end(), "enter closed"), log.events.end());
    EXPECT_EQ(std::count_if(log.events.begin(), log.events.end(),
                            [](const std::string& event) { return event.find("hidden-by-refusal") != std::string::npos; }),
              0);
    EXPECT_EQ(std::find(log.events.begin(), log.events.end(), "leave closed"), log.events.end());
    EXPECT_TRUE(errors.empty());
}

} // namespace
