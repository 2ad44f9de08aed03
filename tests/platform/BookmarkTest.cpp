#include "platform/Bookmark.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

TEST(BookmarkTest, ResolvesBackToTheFolderWhileItIsThere)
{
    TestHome home;
    const fs::path folder = home.path() / std::string("Hom\xe9");
    TreeBuilder::makeFolder(folder);

    const std::optional<std::string> data = Bookmark::create(folder);
    ASSERT_TRUE(data.has_value());
    EXPECT_EQ(Bookmark::resolve(*data), folder);
}

TEST(BookmarkTest, FailsWhenTheFolderIsGoneOrReplaced)
{
    TestHome home;
    const fs::path folder = home.path() / "chosen";
    TreeBuilder::makeFolder(folder);
    const std::string data = Bookmark::create(folder).value();

    fs::remove(folder);
    EXPECT_FALSE(Bookmark::resolve(data).has_value());

    // Replaced: the first folder is only moved aside, so that its inode number stays taken and cannot be
    // handed to the new folder made under its name.
    const fs::path other = home.path() / "other";
    TreeBuilder::makeFolder(other);
    const std::string otherData = Bookmark::create(other).value();
    fs::rename(other, home.path() / "moved-aside");
    TreeBuilder::makeFolder(other);
    EXPECT_FALSE(Bookmark::resolve(otherData).has_value()) << "a new folder under the old name is another folder";

    TreeBuilder::removeTree(other);
    TreeBuilder::writeFile(other, "now a file");
    EXPECT_FALSE(Bookmark::resolve(otherData).has_value());
}

TEST(BookmarkTest, RejectsDataItDidNotMake)
{
    TestHome home;
    const std::string data = Bookmark::create(home.path()).value();
    EXPECT_FALSE(Bookmark::resolve("").has_value());
    EXPECT_FALSE(Bookmark::resolve("garbage that is long enough to pass the header").has_value());
    EXPECT_FALSE(Bookmark::resolve(data.substr(0, 12)).has_value());
    EXPECT_FALSE(Bookmark::create(home.path() / "missing").has_value());
    EXPECT_FALSE(Bookmark::create("relative/folder").has_value());
}

} // namespace
