#include "Helpers/ItemRemover.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

TEST(ItemRemoverTest, RemovesWholeTreesOfAnyDepthWithoutFollowingLinksOutAndFailsOnceTheyAreGone)
{
    TestHome home;
    const fs::path tree = home.path() / "backup";
    writeItems(tree, {"a/b/file=x", ".hidden/caf\xe9=x",
                      "a/link-to-outside=-> " + (home.path() / "outside").native(), "locked/inner=/"});
    writeItems(home.path(), {"outside/keep=precious"});
    ::chmod((tree / "locked").c_str(), 0);
    ::close(makeDeepChain(tree, "dd", 1800)); // 5,400 bytes of path, past PATH_MAX

    EXPECT_EQ(ItemRemover::removeItemAtPath(tree), std::nullopt);
    EXPECT_FALSE(fs::exists(fs::symlink_status(tree)));
    EXPECT_EQ(contents(home.path() / "outside"), (Items{"keep=precious"}));

    const std::optional<FsError> failure = ItemRemover::removeItemAtPath(tree);
    EXPECT_EQ(failure ? failure->code : 0, ENOENT);
}

} // namespace
