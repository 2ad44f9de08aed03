#include "Helpers/DirectoryWalker.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;
using namespace TreeBuilder;
using ::testing::AnyOf;
using ::testing::UnorderedElementsAre;

namespace {

class DirectoryWalkerTest : public ::testing::Test {
protected:
    fs::path root() const { return home.path() / "root"; }
    int openRoot() const { return ::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }

    // Every entry as "depth:name" plus "/" for folders.
    std::multiset<std::string> walkAll(const DirectoryWalker::Visitor& extra = {})
    {
        std::multiset<std::string> seen;
        completed = DirectoryWalker::walk(
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
    bool completed = false;
};

TEST_F(DirectoryWalkerTest, VisitsEveryEntryByItsRawBytesNeverFollowingLinksAndHonoursSkipAndStop)
{
    // A root that cannot be opened is reported and walks nothing.
    EXPECT_TRUE(walkAll().empty());
    EXPECT_FALSE(completed);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors.front().code, ENOENT);
    errors.clear();

    writeFile(root() / "a" / "b" / "c.txt", "c");
    writeFile(root() / ".hidden" / "h", "h");
    writeFile(root() / std::string("caf\xe9"), "x");
    writeFile(home.path() / "elsewhere" / "not-visited", "x");
    makeSymlink((home.path() / "elsewhere").string(), root() / "link");

    EXPECT_THAT(walkAll(), UnorderedElementsAre("1:a/", "2:b/", "3:c.txt", "1:.hidden/", "2:h", "1:link",
                                                std::string("1:caf\xe9")));
    EXPECT_TRUE(completed);
    const auto skipA = [](const WalkEntry& entry) {
        return std::string(entry.name) == "a" ? WalkAction::SkipDescendants : WalkAction::Continue;
    };
    EXPECT_THAT(walkAll(skipA),
                UnorderedElementsAre("1:a/", "1:.hidden/", "2:h", "1:link", std::string("1:caf\xe9")));
    EXPECT_EQ(walkAll([](const WalkEntry&) { return WalkAction::Stop; }).size(), 1u);
    EXPECT_TRUE(errors.empty());
}

TEST_F(DirectoryWalkerTest, EntriesThatVanishOrTurnIntoLinksMidWalkArePassedOverAndReported)
{
    for (int i = 0; i < 50; ++i)
        writeFile(root() / ("folder" + std::to_string(i)) / "file", "x");
    writeFile(root() / "victim" / "file", "x");
    writeFile(home.path() / "outside" / "secret", "x");

    // Right after the first visit, when every folder has been listed: none of them can be opened any more.
    bool changed = false;
    const auto seen = walkAll([&](const WalkEntry&) {
        if (!std::exchange(changed, true)) {
            for (int i = 0; i < 50; ++i)
                removeTree(root() / ("folder" + std::to_string(i)));
            removeTree(root() / "victim");
            makeSymlink((home.path() / "outside").string(), root() / "victim");
        }
        return WalkAction::Continue;
    });

    EXPECT_EQ(seen.count("2:file"), 0u);
    EXPECT_EQ(seen.count("2:secret"), 0u);
    ASSERT_EQ(errors.size(), 51u);
    for (const FsError& error : errors) {
        EXPECT_EQ(error.path.parent_path(), root());
        // O_NOFOLLOW with O_DIRECTORY refuses a link as ENOTDIR or ELOOP, depending on the kernel.
        if (error.path.filename() == "victim")
            EXPECT_THAT(error.code, AnyOf(ELOOP, ENOTDIR));
        else
            EXPECT_EQ(error.code, ENOENT);
    }
}

TEST_F(DirectoryWalkerTest, AFolderNamedInAnOpenFolderIsWalkedButALinkThereIsRefused)
{
    writeFile(root() / "container" / "inner" / "file", "x");
    writeFile(home.path() / "outside" / "secret", "x");
    makeSymlink((home.path() / "outside").string(), root() / "portal");
    const int rootFd = openRoot();
    ASSERT_GE(rootFd, 0);

    std::multiset<std::string> seen;
    const auto record = [&](const WalkEntry& entry) {
        seen.insert(std::to_string(entry.depth) + ":" + entry.relativeFolder + "|" + entry.name);
        return WalkAction::Continue;
    };
    const auto report = [&](const FsError& error) { errors.push_back(error); };
    EXPECT_TRUE(DirectoryWalker::walk(rootFd, "container", record, report));
    EXPECT_FALSE(DirectoryWalker::walk(rootFd, "portal", record, report));
    ::close(rootFd);

    EXPECT_THAT(seen, UnorderedElementsAre("1:|inner", "2:inner|file"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors.front().code, AnyOf(ELOOP, ENOTDIR));
}

TEST_F(DirectoryWalkerTest, DeepBranchingTreesKeepFewDescriptorsOpenAndMissNothing)
{
    // 300 nested folders, far more than the descriptors held; the top 40 levels hold a file each.
    makeFolder(root());
    ::close(makeDeepChain(root(), "n", 300));
    fs::path level = root();
    for (int depth = 0; depth < 40; ++depth, level /= "n")
        writeFile(level / ("f" + std::to_string(depth)), "x");
    int maxDescriptor = 0;

    const auto seen = walkAll([&](const WalkEntry& entry) {
        maxDescriptor = std::max(maxDescriptor, entry.parentFd);
        return WalkAction::Continue;
    });

    EXPECT_EQ(seen.size(), 340u);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const std::string& e) { return e.back() != '/'; }),
              40);
    EXPECT_TRUE(errors.empty());
    EXPECT_LT(maxDescriptor, static_cast<int>(DirectoryWalker::kMaxHeldDescriptors) + 32);
}

// Records the order of events around each folder; refuses to enter the folders named "closed".
struct FolderLog : DirectoryWalker::FolderObserver {
    bool enterFolder(int fd, const std::string& relativeFolder) override
    {
        struct stat status {};
        events.push_back("enter " + relativeFolder + (::fstat(fd, &status) == 0 ? "" : " (bad fd)"));
        return relativeFolder.find("closed") == std::string::npos;
    }
    void leaveFolder(const std::string& relativeFolder) override
    {
        events.push_back("leave " + relativeFolder);
    }

    std::vector<std::string> events;
};

TEST_F(DirectoryWalkerTest, AnObservedFolderIsEnteredBeforeItsEntriesAndLeftAfterThem)
{
    writeFile(root() / "open" / "file", "x");
    writeFile(root() / "closed" / "hidden-by-refusal" / "deeper", "x");
    makeSymlink("file", root() / "open" / "link");
    FolderLog log;
    const int rootFd = openRoot();
    ASSERT_GE(rootFd, 0);

    DirectoryWalker::walkOpenFolder(
        rootFd, root(),
        [&](const WalkEntry& entry) {
            const char kind =
                entry.type == DT_DIR ? 'd' : entry.type == DT_LNK ? 'l' : entry.type == DT_REG ? 'f' : '?';
            log.events.push_back(std::string("entry ") + kind + ' ' + entry.relativePath().string());
            return WalkAction::Continue;
        },
        [&](const FsError& error) { errors.push_back(error); }, &log);

    // The two entries of a folder come in directory order; everything else is fixed by the walk. The
    // refused folder is entered but never read nor left.
    const std::vector<std::string>& events = log.events;
    ASSERT_EQ(events.size(), 9u);
    EXPECT_EQ(events[0], "enter ");
    EXPECT_THAT(std::vector(events.begin() + 1, events.begin() + 3),
                UnorderedElementsAre("entry d open", "entry d closed"));
    EXPECT_EQ(events[3], "leave ");
    const auto open = std::find(events.begin() + 4, events.begin() + 6, "enter open");
    ASSERT_NE(open, events.begin() + 6);
    EXPECT_THAT(std::vector(open + 1, open + 3),
                UnorderedElementsAre("entry f open/file", "entry l open/link"));
    EXPECT_EQ(*(open + 3), "leave open");
    EXPECT_THAT(events, ::testing::Contains("enter closed"));
    EXPECT_THAT(events, ::testing::Each(::testing::Not(::testing::HasSubstr("hidden-by-refusal"))));
    EXPECT_THAT(events, ::testing::Not(::testing::Contains("leave closed")));
    EXPECT_TRUE(errors.empty());
}

} // namespace
