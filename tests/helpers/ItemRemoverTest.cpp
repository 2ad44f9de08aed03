#include "Helpers/ItemRemover.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <fcntl.h>
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

TEST(ItemRemoverTest, RemovesTreesDeeperThanPathMax)
{
    TestHome home;
    makeFolder(home.path() / "deep");
    ::close(makeDeepChain(home.path() / "deep", "dd", 1800));
    EXPECT_FALSE(ItemRemover::removeItemAtPath(home.path() / "deep").has_value());
    EXPECT_FALSE(fs::exists(home.path() / "deep"));
}

TEST(ItemRemoverTest, AMissingItemIsAnError)
{
    TestHome home;
    const std::optional<FsError> failure = ItemRemover::removeItemAtPath(home.path() / "missing");
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, ENOENT);
}

} // namespace
