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

TEST(ItemRemoverTest, RemovesWholeTreesWithoutFollowingLinksOut)
{
    TestHome home;
    const fs::path tree = home.path() / "backup";
    writeFile(tree / "a" / "b" / "file", "x");
    writeFile(tree / ".hidden" / std::string("caf\xe9"), "x");
    writeFile(home.path() / "outside" / "keep", "precious");
    makeSymlink((home.path() / "outside").string(), tree / "a" / "link-to-outside");
    makeFolder(tree / "locked" / "inner");
    ::chmod((tree / "locked").c_str(), 0);

    EXPECT_FALSE(ItemRemover::removeItemAtPath(tree).has_value());
    EXPECT_FALSE(fs::exists(fs::symlink_status(tree)));
    EXPECT_EQ(readFile(home.path() / "outside" / "keep"), "precious");
}

TEST(ItemRemoverTest, RemovesTreesDeeperThanPathMaxAndFailsOnceTheyAreGone)
{
    TestHome home;
    const fs::path deep = home.path() / "deep";
    makeFolder(deep);
    ::close(makeDeepChain(deep, "dd", 1800));
    EXPECT_FALSE(ItemRemover::removeItemAtPath(deep).has_value());
    EXPECT_FALSE(fs::exists(deep));

    const std::optional<FsError> failure = ItemRemover::removeItemAtPath(deep);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, ENOENT);
}

} // namespace
