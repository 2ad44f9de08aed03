#include "Helpers/CocoaAdditions.h"

#include "support/TestHome.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

namespace {

TEST(FreeSpaceTest, IsTheSpaceAvailableToTheUserAndAFailureIsAnErrorNotZeroBytesFree)
{
    TestHome home;
    FsError error;
    const std::int64_t free = CocoaAdditions::determineFreeSpaceOnDeviceByPath(home.path(), &error);
    struct statvfs volume {};
    ASSERT_EQ(::statvfs(home.path().c_str(), &volume), 0);
    EXPECT_EQ(error.code, 0);
    // Other processes write to the same disk meanwhile: allow a few megabytes of drift.
    EXPECT_NEAR(static_cast<double>(free), static_cast<double>(volume.f_bavail * volume.f_frsize),
                64.0 * 1024 * 1024);

    const char* missing = "/nonexistent/pelmora/volume";
    EXPECT_EQ(CocoaAdditions::determineFreeSpaceOnDeviceByPath(missing, &error), 0);
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_EQ(error.path, missing);
    EXPECT_EQ(CocoaAdditions::determineFreeSpaceOnDeviceByPath(missing, nullptr), 0);
}

} // namespace
