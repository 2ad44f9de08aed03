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

    // Every entry as "depth:folder|name" plus "/" for folders.
    DirectoryWalker::Visitor recorder(const DirectoryWalker::Visitor& extra = {})
    {
        return [this, extra](const WalkEntry& entry) {
            seen.insert(std::to_string(entry.depth) + ":" + entry.relativeFolder + "|" + entry.name +
                        (entry.isDirectory ? "/" : ""));
            return extra ? extra(entry) : WalkAction::Continue;
        };
    }
    std::multiset<std::string> walkAll(const DirectoryWalker::Visitor& extra = {})
    {
        seen.clear();
        completed = DirectoryWalker::walk(root(), recorder(extra), reporter);
        return seen;
    }

    TestHome home;
    std::multiset<std::string> seen;
    std::vector<FsError> errors;
    const DirectoryWalker::ErrorHandler reporter = [this](const FsError& error) { errors.push_back(error); };
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

    writeItems(root(), {"a/b/c.txt=c", ".hidden/h=h", "caf\xe9=x",
                        "link=-> " + (home.path() / "elsewhere").native()});
    writeItems(home.path(), {"elsewhere/not-visited=x"});

    EXPECT_THAT(walkAll(), UnorderedElementsAre("1:|a/", "2:a|b/", "3:a/b|c.txt", "1:|.hidden/",
                                                "2:.hidden|h", "1:|link", "1:|caf\xe9"));
    EXPECT_TRUE(completed);
    const auto skipA = [](const WalkEntry& entry) {
        return std::string(entry.name) == "a" ? WalkAction::SkipDescendants : WalkAction::Continue;
    };
    EXPECT_THAT(walkAll(skipA),
                UnorderedElementsAre("1:|a/", "1:|.hidden/", "2:.hidden|h", "1:|link", "1:|caf\xe9"));
    EXPECT_EQ(walkAll([](const WalkEntry&) { return WalkAction::Stop; }).size(), 1u);

    // A folder named in an open folder is walked, but a link there is refused like a file.
    const int rootFd = ::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    seen.clear();
    EXPECT_TRUE(DirectoryWalker::walk(rootFd, "a", recorder(), reporter));
    EXPECT_FALSE(DirectoryWalker::walk(rootFd, "link", recorder(), reporter));
    ::close(rootFd);
    EXPECT_THAT(seen, UnorderedElementsAre("1:|b/", "2:b|c.txt"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors.front().code, AnyOf(ELOOP, ENOTDIR));
}

TEST_F(DirectoryWalkerTest, EntriesThatVanishOrTurnIntoLinksMidWalkArePassedOverAndReported)
{
    for (int i = 0; i < 50; ++i)
        writeFile(root() / ("folder" + std::to_string(i)) / "file", "x");
    writeItems(root(), {"victim/file=x"});
    writeItems(home.path(), {"outside/secret=x"});

    // Right after the first visit, when every folder has been listed: none of them can be opened any more.
    bool changed = false;
    walkAll([&](const WalkEntry&) {
        if (!std::exchange(changed, true)) {
            for (int i = 0; i < 50; ++i)
                removeTree(root() / ("folder" + std::to_string(i)));
            removeTree(root() / "victim");
            makeSymlink((home.path() / "outside").string(), root() / "victim");
        }
        return WalkAction::Continue;
    });

    EXPECT_TRUE(
        std::all_of(seen.begin(), seen.end(), [](const std::string& e) { return e.starts_with("1:"); }));
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

TEST_F(DirectoryWalkerTest, DeepBranchingTreesKeepFewDescriptorsOpenAndMissNothing)
{
    // 300 nested folders, far more than the descriptors held; the top 40 levels hold a file each.
    makeFolder(root());
    ::close(makeDeepChain(root(), "n", 300));
    fs::path level = root();
    for (int depth = 0; depth < 40; ++depth, level /= "n")
        writeFile(level / ("f" + std::to_string(depth)), "x");
    int maxDescriptor = 0;

    walkAll([&](const WalkEntry& entry) {
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
    writeItems(root(), {"open/file=x", "open/link=-> file", "closed/hidden-by-refusal/deeper=x"});
    FolderLog log;

    DirectoryWalker::walkOpenFolder(
        ::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), root(),
        [&](const WalkEntry& entry) {
            const char kind = entry.type == DT_DIR   ? 'd'
                              : entry.type == DT_LNK ? 'l'
                              : entry.type == DT_REG ? 'f'
                                                     : '?';
            log.events.push_back(std::string("entry ") + kind + ' ' + entry.relativePath().string());
            return WalkAction::Continue;
        },
        reporter, &log);

    // The two entries of a folder come in directory order, and so do the folders; the refused folder is
    // entered but never read nor left.
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
    EXPECT_TRUE(errors.empty());
}

} // namespace
