#include "engine/ItemCopier.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
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

bool operator==(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string outcome(const std::optional<FsError>& failure)
{
    return failure ? failure->describe() : std::string("copied");
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

std::string linkTarget(const fs::path& path)
{
    char target[4096];
    const ssize_t size = ::readlink(path.c_str(), target, sizeof target);
    return size < 0 ? std::string("<none>") : std::string(target, static_cast<std::size_t>(size));
}

// A small file system of its own, to run out of space or to copy across file systems.
class ScopedTmpfs {
public:
    ScopedTmpfs(const fs::path& where, const char* size)
        : m_where(where)
    {
        makeFolder(where);
        m_mounted = ::mount("tmpfs", where.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
    }
    ~ScopedTmpfs()
    {
        if (m_mounted)
            ::umount2(m_where.c_str(), MNT_DETACH);
    }
    ScopedTmpfs(const ScopedTmpfs&) = delete;
    ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

    bool mounted() const { return m_mounted; }

private:
    fs::path m_where;
    bool m_mounted = false;
};

class ItemCopierTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        makeFolder(source());
        makeFolder(destination());
        sourceFd = ::open(source().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        destinationFd = ::open(destination().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(sourceFd, 0);
        ASSERT_GE(destinationFd, 0);
    }

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
    int sourceFd = -1;
    int destinationFd = -1;
};

TEST_F(ItemCopierTest, AFileKeepsItsContentPermissionsAttributesAndNanosecondTimes)
{
    // Larger than one transfer buffer and of an odd size; mode bits that a umask would strip.
    const std::string content = randomBytes(1024 * 1024 + 17);
    writeFile(source() / "doc", content);
    ASSERT_EQ(::chmod((source() / "doc").c_str(), 0666), 0);
    const std::string tag("blue\0green", 10);
    ASSERT_EQ(::setxattr((source() / "doc").c_str(), "user.pelmora.tag", tag.data(), tag.size(), 0), 0);
    setTimes(source() / "doc", {1600000000, 987654321}, {1700000000, 123456789});

    ASSERT_EQ(outcome(copy("doc")), "copied");

    const struct stat copied = statusOf(destination() / "doc"); // before reading it touches the access time
    EXPECT_EQ(copied.st_mode & 07777, 0666u);
    EXPECT_TRUE(copied.st_mtim == (timespec{1700000000, 123456789}));
    EXPECT_TRUE(copied.st_atim == (timespec{1600000000, 987654321}));
    EXPECT_TRUE(readFile(destination() / "doc") == content);
    EXPECT_EQ(attribute(destination() / "doc", "user.pelmora.tag"), tag);
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

TEST_F(ItemCopierTest, AFileFromAnotherFileSystemIsCopiedInFull)
{
    // copy_file_range refuses to cross file systems, so this takes the read and write way.
    ScopedTmpfs other(home.path() / "other", "4m");
    if (!other.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::string content = randomBytes(600 * 1024 + 5);
    writeFile(home.path() / "other" / "doc", content);
    setTimes(home.path() / "other" / "doc", {1600000000, 1}, {1700000000, 999999999});
    const int otherFd = ::open((home.path() / "other").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);

    EXPECT_EQ(outcome(copier.copyItem(otherFd, "doc", destinationFd, "doc")), "copied");
    ::close(otherFd);

    EXPECT_TRUE(statusOf(destination() / "doc").st_mtim == (timespec{1700000000, 999999999}));
    EXPECT_TRUE(readFile(destination() / "doc") == content);
}

TEST_F(ItemCopierTest, AnEmptyFileAndAFifoKeepTheirPermissionsAndTimes)
{
    writeFile(source() / "empty", "");
    ASSERT_EQ(::mkfifo((source() / "fifo").c_str(), 0640), 0);
    setTimes(source() / "empty", {1500000000, 5}, {1500000001, 6});
    setTimes(source() / "fifo", {1500000002, 7}, {1500000003, 8});

    ASSERT_EQ(outcome(copy("empty")), "copied");
    ASSERT_EQ(outcome(copy("fifo")), "copied");

    const struct stat empty = statusOf(destination() / "empty");
    EXPECT_TRUE(S_ISREG(empty.st_mode));
    EXPECT_EQ(empty.st_size, 0);
    EXPECT_TRUE(empty.st_mtim == (timespec{1500000001, 6}));
    const struct stat fifo = statusOf(destination() / "fifo");
    EXPECT_TRUE(S_ISFIFO(fifo.st_mode));
    EXPECT_EQ(fifo.st_mode & 07777, 0640u);
    EXPECT_TRUE(fifo.st_mtim == (timespec{1500000003, 8}));
}

TEST_F(ItemCopierTest, ALinkIsCopiedAsALinkWithItsOwnTimes)
{
    writeFile(source() / "real", "the file");
    makeSymlink("real", source() / "to-file");
    makeSymlink("../nowhere/missing", source() / "dangling");
    setTimes(source() / "to-file", {1400000000, 11}, {1400000001, 12});

    ASSERT_EQ(outcome(copy("to-file")), "copied");
    ASSERT_EQ(outcome(copy("dangling")), "copied");

    const struct stat link = statusOf(destination() / "to-file");
    EXPECT_TRUE(S_ISLNK(link.st_mode));
    EXPECT_EQ(linkTarget(destination() / "to-file"), "real");
    EXPECT_TRUE(link.st_mtim == (timespec{1400000001, 12}));
    EXPECT_EQ(linkTarget(destination() / "dangling"), "../nowhere/missing");
    EXPECT_FALSE(isThere(destination() / "real"));
}

TEST_F(ItemCopierTest, NothingAtTheDestinationIsOverwrittenOrWrittenThrough)
{
    for (const char* name : {"plain", "planted", "dangling"})
        writeFile(source() / name, "new content");
    makeSymlink("real", source() / "link");
    writeFile(destination() / "plain", "old");
    writeFile(home.path() / "outside", "outside");
    makeSymlink((home.path() / "outside").string(), destination() / "planted");
    makeSymlink((home.path() / "not-there").string(), destination() / "dangling");
    writeFile(destination() / "link", "a file where the link would go");

    for (const char* name : {"plain", "planted", "dangling", "link"}) {
        const std::optional<FsError> failure = copy(name);
        ASSERT_TRUE(failure.has_value()) << name;
        EXPECT_EQ(failure->code, EEXIST) << name;
    }

    EXPECT_EQ(readFile(destination() / "plain"), "old");
    EXPECT_EQ(readFile(home.path() / "outside"), "outside");
    EXPECT_EQ(linkTarget(destination() / "planted"), (home.path() / "outside").string());
    EXPECT_FALSE(isThere(home.path() / "not-there"));
    EXPECT_EQ(readFile(destination() / "link"), "a file where the link would go");
}

TEST_F(ItemCopierTest, AMissingSourceCreatesNothing)
{
    const std::optional<FsError> failure = copy("missing");
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, ENOENT);
    EXPECT_FALSE(isThere(destination() / "missing"));
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

TEST_F(ItemCopierTest, DevicesAndSocketsAreNotCopied)
{
    const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = (source() / "socket").string();
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    ASSERT_EQ(::bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const bool haveDevice = ::mknod((source() / "device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;

    const std::optional<FsError> socketFailure = copy("socket");
    ::close(listening);
    ASSERT_TRUE(socketFailure.has_value());
    EXPECT_EQ(socketFailure->code, ENOTSUP);
    EXPECT_FALSE(isThere(destination() / "socket"));
    if (haveDevice) {
        const std::optional<FsError> deviceFailure = copy("device");
        ASSERT_TRUE(deviceFailure.has_value());
        EXPECT_EQ(deviceFailure->code, ENOTSUP);
        EXPECT_FALSE(isThere(destination() / "device"));
    }
}

TEST_F(ItemCopierTest, ADiskThatFillsUpLeavesNoTruncatedFile)
{
    ScopedTmpfs small(home.path() / "small", "256k");
    if (!small.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here";
    writeFile(source() / "big", randomBytes(1024 * 1024));
    writeFile(home.path() / "small" / "local", randomBytes(160 * 1024));
    const int smallFd = ::open((home.path() / "small").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);

    // From another file system (read and write), then within the full one (copy_file_range).
    const std::optional<FsError> across = copier.copyItem(sourceFd, "big", smallFd, "big");
    const std::optional<FsError> within = copier.copyItem(smallFd, "local", smallFd, "local-copy");

    ASSERT_TRUE(across.has_value());
    EXPECT_EQ(across->code, ENOSPC);
    EXPECT_FALSE(isThere(home.path() / "small" / "big"));
    ASSERT_TRUE(within.has_value());
    EXPECT_EQ(within->code, ENOSPC);
    EXPECT_FALSE(isThere(home.path() / "small" / "local-copy"));
    // The space of the failed copies came back.
    writeFile(source() / "little", "fits");
    EXPECT_EQ(outcome(copier.copyItem(sourceFd, "little", smallFd, "little")), "copied");
    ::close(smallFd);
}

} // namespace
