#include "platform/PasswordDatabase.h"

#include "platform/PosixPasswordDatabase.h"
#include "support/TestHome.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

struct ScriptedPasswordDatabase : PasswordDatabase {
    explicit ScriptedPasswordDatabase(std::optional<std::string> homeFolder)
        : home(std::move(homeFolder))
    {
    }
    std::optional<std::string> homeDirectoryOfUser(uid_t) const override { return home; }
    std::optional<std::string> home;
};

TEST(RealHomeDirectoryTest, ComesFromThePasswordDatabaseNotTheEnvironment)
{
    TestHome home; // HOME now points at a temporary folder
    EXPECT_EQ(ScriptedPasswordDatabase("/home/jane").realHomeDirectory(), "/home/jane");
    const std::optional<std::string> real = PosixPasswordDatabase().homeDirectoryOfUser(::getuid());
    ASSERT_TRUE(real.has_value());
    EXPECT_EQ(PosixPasswordDatabase().realHomeDirectory(), *real);
    EXPECT_NE(*real, home.path().string());
}

TEST(RealHomeDirectoryTest, AUserWithoutAnEntryHasNoHomeFolderRatherThanAnEnd)
{
    EXPECT_EQ(ScriptedPasswordDatabase(std::nullopt).realHomeDirectory(), std::nullopt);
}

} // namespace
