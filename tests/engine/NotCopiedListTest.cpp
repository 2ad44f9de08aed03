#include "engine/NotCopiedList.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

TEST(NotCopiedListTest, AnyNameComesBackAsItWasAndOnlyLinesThatMakeSenseAreRead)
{
    TestHome home;
    const fs::path backup = home.path() / "2026.01.01-10.00.00";
    makeFolder(backup);
    const std::vector<FsError> items = {
        {"openat", std::string("caf\xe9/not utf-8"), EACCES},
        {"copy socket", "a\tb\nc%41 100%", ENOTSUP},
        {"open", "plain/name.txt", EIO},
    };

    ASSERT_FALSE(NotCopiedList::write(backup / "", items)) << "a trailing slash names the same folder";
    EXPECT_EQ(NotCopiedList::pathFor(backup), home.path() / "2026.01.01-10.00.00.not-copied");
    EXPECT_FALSE(fs::exists(backup / ".not-copied")) << "beside the folder, never inside";
    const std::vector<FsError> read = NotCopiedList::read(backup);
    ASSERT_EQ(read.size(), items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(read[i].path, items[i].path);
        EXPECT_EQ(read[i].operation, items[i].operation);
        EXPECT_EQ(read[i].code, items[i].code);
    }

    writeFile(NotCopiedList::pathFor(backup), "# note\n13\topen\tgood\nnonsense\nx\topen\tbad\n5\topen\tbad%zz\n2\tstat\t\n");
    ASSERT_EQ(NotCopiedList::read(backup).size(), 1u);
    EXPECT_EQ(NotCopiedList::read(backup)[0].path, "good");

    NotCopiedList::remove(backup);
    EXPECT_TRUE(NotCopiedList::read(backup).empty());
    EXPECT_TRUE(NotCopiedList::write(home.path() / "missing" / "backup", items).has_value());
}

} // namespace
