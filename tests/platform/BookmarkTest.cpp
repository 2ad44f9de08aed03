#include "platform/Bookmark.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

TEST(BookmarkTest, ResolvesBackOnlyWhileThatVeryFolderIsThere)
{
    TestHome home;
    const fs::path folder = home.path() / std::string("Hom\xe9");
    makeFolder(folder);
    const std::optional<std::string> created = Bookmark::create(folder);
    ASSERT_TRUE(created.has_value());
    const std::string& data = *created;
    EXPECT_EQ(Bookmark::resolve(data), folder);

    // The first folder is only moved aside, so that its inode number stays taken and cannot be handed to
    // the new folder made under its name.
    fs::rename(folder, home.path() / "moved-aside");
    makeFolder(folder);
    EXPECT_FALSE(Bookmark::resolve(data).has_value()) << "a new folder under the old name is another folder";
    removeTree(folder);
    writeFile(folder, "now a file");
    EXPECT_FALSE(Bookmark::resolve(data).has_value());
    fs::remove(folder);
    EXPECT_FALSE(Bookmark::resolve(data).has_value());
}

TEST(BookmarkTest, RejectsDataItDidNotMakeAndFoldersItCannotName)
{
    TestHome home;
    const std::string data = Bookmark::create(home.path()).value();
    EXPECT_FALSE(Bookmark::resolve("garbage that is long enough to pass the header").has_value());
    EXPECT_FALSE(Bookmark::resolve(data.substr(0, 12)).has_value());
    EXPECT_FALSE(Bookmark::create(home.path() / "missing").has_value());
    EXPECT_FALSE(Bookmark::create("relative/folder").has_value());
}

} // namespace
