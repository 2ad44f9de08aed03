#include "platform/PosixPasswordDatabase.h"
#include "support/TestHome.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(RealHomeDirectoryTest, ComesFromThePasswordDatabaseNotTheEnvironment)
{
    TestHome home; // HOME now points at a temporary folder
    const std::optional<std::string> real = PosixPasswordDatabase().homeDirectoryOfUser(::getuid());
    ASSERT_TRUE(real.has_value());
    EXPECT_EQ(PosixPasswordDatabase().realHomeDirectory(), *real);
    EXPECT_NE(*real, home.path().string());
}

// No folder can be taken for the home folder of a user the database does not know.
TEST(RealHomeDirectoryTest, AUserWithoutAnEntryHasNoHomeFolderRatherThanAnEnd)
{
    EXPECT_EQ(PosixPasswordDatabase().homeDirectoryOfUser(3999999999u), std::nullopt);
}

} // namespace
