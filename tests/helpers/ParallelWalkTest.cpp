#include "Helpers/ParallelWalk.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class ParallelWalkTest : public ::testing::Test {
protected:
    fs::path root() const { return home.path() / "root"; }

    // Every entry as its path relative to the root, "/" added to folders; each subtree as it is handed over.
    bool walkAll(const fs::path& start)
    {
        seen.clear();
        return ParallelWalk::walk(
            start,
            [&](const WalkEntry& entry) {
                record(entry.relativePath().string() + (entry.isDirectory ? "/" : ""));
                return std::string(entry.name) == "skipped" ? WalkAction::SkipDescendants
                                                            : WalkAction::Continue;
            },
            [&](int rootFd, const std::string& name) {
                record("subtree " + name);
                DirectoryWalker::walk(rootFd, name, [&](const WalkEntry& entry) {
                    record(name + "/" + entry.relativePath().string() + (entry.isDirectory ? "/" : ""));
                    return WalkAction::Continue;
                });
            });
    }

    void record(const std::string& entry)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        seen.insert(entry);
    }

    TestHome home;
    std::mutex mutex;
    std::multiset<std::string> seen;
};

TEST_F(ParallelWalkTest, EachTopLevelFolderIsWalkedOnceAndEveryEntryIsSeenOnceAlsoThroughALinkedRoot)
{
    writeItems(home.path(), {"a-file=x", "outside/secret=x", "alias-of-root=-> " + root().native()});
    EXPECT_FALSE(walkAll(root()));
    EXPECT_FALSE(walkAll(home.path() / "a-file"));
    EXPECT_TRUE(seen.empty());

    writeItems(root(),
               {"top-file=x", "skipped/never=x", "link-to-folder=-> " + (home.path() / "outside").native()});
    std::multiset<std::string> expected{"top-file", "skipped/", "link-to-folder"};
    for (int i = 0; i < 12; ++i) {
        const std::string name = "container-" + std::to_string(i);
        writeFile(root() / name / "inner" / "file", "x");
        expected.insert({name + "/", "subtree " + name, name + "/inner/", name + "/inner/file"});
    }

    // On the calling thread alone, without a starter; with a starter like the program's pool; and with one
    // whose pool is busy: every share is walked once.
    std::atomic<int> started = 0;
    for (const ParallelWalk::Starter& starter :
         {ParallelWalk::Starter(), ParallelWalk::Starter([&](std::function<void()> task) {
              ++started;
              std::thread(std::move(task)).detach();
              return true;
          }),
          ParallelWalk::Starter([](std::function<void()>) { return false; })}) {
        ParallelWalk::setStarter(starter);
        EXPECT_TRUE(walkAll(home.path() / "alias-of-root"));
        EXPECT_EQ(seen, expected);
    }
    ParallelWalk::setStarter({});
    EXPECT_EQ(started, static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 4U)) - 1);
}

} // namespace
