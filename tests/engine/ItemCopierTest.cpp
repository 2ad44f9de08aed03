#include "engine/ItemCopier.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

struct stat statusOf(const fs::path& path)
{
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

bool isThere(const fs::path& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

void setTimes(const fs::path& path, timespec accessed, timespec modified)
{
    const timespec times[2] = {accessed, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// Kind, permission bits, modification time to the nanosecond, and content or link target.
std::string describe(const fs::path& path)
{
    const struct stat status = statusOf(path);
    const std::string common = std::to_string(status.st_mode & 07777) + " " +
                               std::to_string(status.st_mtim.tv_sec) + "." +
                               std::to_string(status.st_mtim.tv_nsec);
    if (S_ISLNK(status.st_mode))
        return "link " + common + " -> " + fs::read_symlink(path).native();
    if (S_ISFIFO(status.st_mode))
        return "fifo " + common;
    return "file " + common + " " + readFile(path);
}

std::string outcome(const std::optional<FsError>& failure)
{
    return failure ? failure->describe() : std::string("copied");
}

int errorOf(const std::optional<FsError>& failure)
{
    return failure ? failure->code : 0;
}

std::string randomBytes(std::size_t size)
{
    std::mt19937 generator(7);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator() & 0xff);
    return bytes;
}

std::string attribute(const fs::path& path, const char* name)
{
    char value[256];
    const ssize_t size = ::lgetxattr(path.c_str(), name, value, sizeof value);
    return size < 0 ? std::string("<none>") : std::string(value, static_cast<std::size_t>(size));
}

int openFolder(const fs::path& folder)
{
    makeFolder(folder);
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << folder;
    return fd;
}

class ItemCopierTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        ::close(sourceFd);
        ::close(destinationFd);
    }

    fs::path source() const { return home.path() / "source"; }
    fs::path destination() const { return home.path() / "destination"; }

    std::optional<FsError> copy(const char* name)
    {
        return copier.copyItem(sourceFd, name, destinationFd, name);
    }

    TestHome home;
    ItemCopier copier;
    int sourceFd = openFolder(source());
    int destinationFd = openFolder(destination());
};

TEST_F(ItemCopierTest, FilesFifosAndLinksKeepTheirPermissionsAndNanosecondTimes)
{
    // Larger than one transfer buffer and of an odd size; mode bits that a umask would strip.
    writeFile(source() / "doc", randomBytes(1024 * 1024 + 17));
    ASSERT_EQ(::chmod((source() / "doc").c_str(), 0666), 0);
    const std::string tag("blue\0green", 10);
    ASSERT_EQ(::setxattr((source() / "doc").c_str(), "user.pelmora.tag", tag.data(), tag.size(), 0), 0);
    writeFile(source() / "empty", "");
    ASSERT_EQ(::mkfifo((source() / "fifo").c_str(), 0640), 0);
    writeFile(source() / "real", "the file");
    makeSymlink("real", source() / "to-file");
    makeSymlink("../nowhere/missing", source() / "dangling");
    const std::vector<const char*> names = {"doc", "empty", "fifo", "to-file", "dangling"};
    int second = 0;
    for (const char* name : names)
        setTimes(source() / name, {1600000000, 987654321}, {1700000000 + second++, 123456789});

    for (const char* name : names)
        ASSERT_EQ(outcome(copy(name)), "copied") << name;

    const struct stat doc = statusOf(destination() / "doc"); // before reading it touches the access time
    EXPECT_EQ(doc.st_atim.tv_sec, 1600000000);
    EXPECT_EQ(doc.st_atim.tv_nsec, 987654321);
    EXPECT_EQ(attribute(destination() / "doc", "user.pelmora.tag"), tag);
    for (const char* name : names)
        EXPECT_EQ(describe(destination() / name), describe(source() / name)) << name;
    EXPECT_FALSE(isThere(destination() / "real"));
}

TEST_F(ItemCopierTest, SetIdBitsSurviveOnlyWhereTheCopyHasTheOriginalsOwner)
{
    writeFile(source() / "own", "x");
    writeFile(source() / "foreign", "x");
    ASSERT_EQ(::chmod((source() / "own").c_str(), 06755), 0);
    ASSERT_EQ(::chown((source() / "foreign").c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chmod((source() / "foreign").c_str(), 06755), 0);

    ASSERT_EQ(outcome(copy("own")), "copied");
    ASSERT_EQ(outcome(copy("foreign")), "copied");

    EXPECT_EQ(statusOf(destination() / "own").st_mode & 07777, 06755u);
    // Copied by another user, the file must not run with its original owner's rights under the copier's.
    const struct stat foreign = statusOf(destination() / "foreign");
    EXPECT_NE(foreign.st_uid, 65534u);
    EXPECT_EQ(foreign.st_mode & 07777, 0755u);
}

TEST_F(ItemCopierTest, RefusedCopiesCreateNothingAndWriteThroughNothing)
{
    for (const char* name : {"plain", "planted", "dangling"})
        writeFile(source() / name, "new content");
    makeSymlink("real", source() / "link");
    writeFile(destination() / "plain", "old");
    writeFile(home.path() / "outside", "outside");
    makeSymlink((home.path() / "outside").string(), destination() / "planted");
    makeSymlink((home.path() / "not-there").string(), destination() / "dangling");
    writeFile(destination() / "link", "a file where the link would go");
    ASSERT_EQ(::mknod((source() / "socket").c_str(), S_IFSOCK | 0666, 0), 0);
    std::map<std::string, int> refusals = {{"plain", EEXIST}, {"planted", EEXIST}, {"dangling", EEXIST},
                                           {"link", EEXIST},  {"missing", ENOENT}, {"socket", ENOTSUP}};
    if (::mknod((source() / "device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0)
        refusals["device"] = ENOTSUP;

    for (const auto& [name, code] : refusals)
        EXPECT_EQ(errorOf(copy(name.c_str())), code) << name;

    EXPECT_EQ(readFile(destination() / "plain"), "old");
    EXPECT_EQ(readFile(home.path() / "outside"), "outside");
    EXPECT_EQ(fs::read_symlink(destination() / "planted").native(), (home.path() / "outside").native());
    EXPECT_FALSE(isThere(home.path() / "not-there"));
    EXPECT_EQ(readFile(destination() / "link"), "a file where the link would go");
    for (const char* name : {"missing", "socket", "device"})
        EXPECT_FALSE(isThere(destination() / name)) << name;
}

TEST_F(ItemCopierTest, AFileThatCannotBeReadLeavesNothingBehind)
{
    writeFile(source() / "locked", "private");
    ASSERT_EQ(::chmod((source() / "locked").c_str(), 0), 0);
    ::chmod(home.path().c_str(), 0755);
    ::chmod(destination().c_str(), 0777);

    const std::optional<std::string> answer = runUnprivileged([&] {
        const std::optional<FsError> failure = copy("locked");
        return failure ? failure->operation + " " + std::to_string(failure->code) : std::string("copied");
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*answer, "openat " + std::to_string(EACCES));
    EXPECT_FALSE(isThere(destination() / "locked"));
}

TEST_F(ItemCopierTest, AnAbandonedCopyFailsAndLeavesNoPartialFile)
{
    writeFile(source() / "big", randomBytes(3 * 1024 * 1024));
    std::atomic<bool> abandon{true};
    ItemCopier quitting(&abandon);

    EXPECT_EQ(errorOf(quitting.copyItem(sourceFd, "big", destinationFd, "big")), ECANCELED);
    EXPECT_FALSE(isThere(destination() / "big"));

    abandon = false;
    EXPECT_EQ(outcome(quitting.copyItem(sourceFd, "big", destinationFd, "big")), "copied");
    EXPECT_EQ(readFile(destination() / "big"), readFile(source() / "big"));
}

TEST_F(ItemCopierTest, AcrossFileSystemsAFileIsCopiedInFullAndAFullDiskLeavesNoTruncatedFile)
{
    const fs::path small = home.path() / "small";
    makeFolder(small);
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(small.c_str(), MNT_DETACH); });
    writeFile(source() / "big", randomBytes(1024 * 1024));
    writeFile(small / "local", randomBytes(600 * 1024 + 5));
    setTimes(small / "local", {1600000000, 1}, {1700000000, 999999999});
    const int smallFd = openFolder(small);

    // copy_file_range refuses to cross file systems: these take the read and write way, the copy within
    // the full one copy_file_range.
    EXPECT_EQ(outcome(copier.copyItem(smallFd, "local", destinationFd, "local")), "copied");
    EXPECT_EQ(errorOf(copier.copyItem(sourceFd, "big", smallFd, "big")), ENOSPC);
    EXPECT_EQ(errorOf(copier.copyItem(smallFd, "local", smallFd, "local-copy")), ENOSPC);

    EXPECT_EQ(describe(destination() / "local"), describe(small / "local"));
    EXPECT_FALSE(isThere(small / "big"));
    EXPECT_FALSE(isThere(small / "local-copy"));
    // The space of the failed copies came back.
    writeFile(source() / "little", "fits");
    EXPECT_EQ(outcome(copier.copyItem(sourceFd, "little", smallFd, "little")), "copied");
    ::close(smallFd);
}

} // namespace
