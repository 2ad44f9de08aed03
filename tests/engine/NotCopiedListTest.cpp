#include "engine/NotCopiedList.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

std::string described(const std::vector<FsError>& items)
{
    std::string text;
    for (const FsError& item : items)
        text += std::to_string(item.code) + " " + item.operation + " " + item.path.native() + ";";
    return text;
}

TEST(NotCopiedListTest, AnyNameComesBackAsItWasAndOnlyLinesThatMakeSenseAreRead)
{
    TestHome home;
    const fs::path backup = home.path() / "2026.01.01-10.00.00";
    makeFolder(backup);
    const std::vector<FsError> items = {{"openat", std::string("caf\xe9/not utf-8"), EACCES},
                                        {"copy socket", "a\tb\nc%41 100%", ENOTSUP},
                                        {"open", "plain/name.txt", EIO}};

    ASSERT_FALSE(NotCopiedList::write(backup / "", items)) << "a trailing slash names the same folder";
    EXPECT_EQ(contents(home.path()).size(), 2u) << "beside the folder, never inside";
    EXPECT_EQ(NotCopiedList::pathFor(backup), home.path() / "2026.01.01-10.00.00.not-copied");
    EXPECT_EQ(described(NotCopiedList::read(backup)), described(items));

    writeFile(NotCopiedList::pathFor(backup),
              "# note\n13\topen\tgood\nnonsense\nx\topen\tbad\n5\topen\tbad%zz\n2\tstat\t\n");
    EXPECT_EQ(described(NotCopiedList::read(backup)), "13 open good;");

    NotCopiedList::remove(backup);
    EXPECT_TRUE(NotCopiedList::read(backup).empty());
    EXPECT_TRUE(NotCopiedList::write(home.path() / "missing" / "backup", items).has_value());
}

} // namespace
