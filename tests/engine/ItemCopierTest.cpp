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

std::string randomBytes(std::size_t size)
{
    std::mt19937 generator(7);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator() & 0xff);
    return bytes;
}

int openFolder(const fs::path& folder)
{
    makeFolder(folder);
    return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

class ItemCopierTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        ::close(sourceFd);
        ::close(destinationFd);
    }

    // The error code of a copy under the same name, 0 when it was copied.
    int copy(const char* name, ItemCopier& by, int from = -1, int to = -1, const char* as = nullptr)
    {
        const std::optional<FsError> failure =
            by.copyItem(from < 0 ? sourceFd : from, name, to < 0 ? destinationFd : to, as ? as : name);
        return failure ? failure->code : 0;
    }
    int copy(const char* name) { return copy(name, copier); }

    TestHome home;
    ItemCopier copier;
    const fs::path source = home.path() / "source";
    const fs::path destination = home.path() / "destination";
    int sourceFd = openFolder(source);
    int destinationFd = openFolder(destination);
};

TEST_F(ItemCopierTest, FilesFifosAndLinksKeepTheirPermissionsAttributesAndNanosecondTimes)
{
    // Larger than one transfer buffer and of an odd size; mode bits that a umask would strip.
    writeFile(source / "doc", randomBytes(1024 * 1024 + 17));
    ASSERT_EQ(::chmod((source / "doc").c_str(), 0666), 0);
    const std::string tag("blue\0green", 10);
    ASSERT_EQ(::setxattr((source / "doc").c_str(), "user.pelmora.tag", tag.data(), tag.size(), 0), 0);
    writeItems(source, {"empty=", "set-id=x", "real=the file", "to-file=-> real",
                        "dangling=-> ../nowhere/missing", "foreign=x"});
    ASSERT_EQ(::chmod((source / "set-id").c_str(), 06755), 0);
    ASSERT_EQ(::mkfifo((source / "fifo").c_str(), 0640), 0);
    const std::vector<const char*> names = {"doc", "empty", "set-id", "fifo", "to-file", "dangling"};
    int second = 0;
    for (const char* name : names)
        setTimes(source / name, {1700000000 + second++, 123456789}, {1600000000, 987654321});
    // Copied by another user, a set-id file must not run with its original owner's rights.
    ASSERT_EQ(::chown((source / "foreign").c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chmod((source / "foreign").c_str(), 06755), 0);

    for (const char* name : names)
        ASSERT_EQ(copy(name), 0) << name;
    ASSERT_EQ(copy("foreign"), 0);

    struct stat doc {}; // before reading it touches the access time
    ASSERT_EQ(::lstat((destination / "doc").c_str(), &doc), 0);
    EXPECT_EQ(doc.st_atim.tv_sec, 1600000000);
    EXPECT_EQ(doc.st_atim.tv_nsec, 987654321);
    std::string copiedTag(tag.size(), '\0');
    EXPECT_EQ(::getxattr((destination / "doc").c_str(), "user.pelmora.tag", copiedTag.data(), tag.size()),
              10);
    EXPECT_EQ(copiedTag, tag);
    for (const char* name : names)
        EXPECT_EQ(describe(destination / name), describe(source / name)) << name;
    EXPECT_EQ(describe(destination / "real"), "missing");
    EXPECT_EQ(fs::status(destination / "foreign").permissions(), fs::perms(0755));
}

TEST_F(ItemCopierTest, RefusedCopiesCreateNothingAndWriteThroughNothing)
{
    const fs::path outside = home.path() / "outside";
    writeItems(source, {"plain=new", "planted=new", "dangling=new", "link=-> real"});
    writeItems(destination, {"plain=old", "planted=-> " + (outside / "file").native(),
                             "link=a file where the link would go",
                             "dangling=-> " + (home.path() / "not-there").native()});
    writeItems(outside, {"file=outside"});
    ASSERT_EQ(::mknod((source / "socket").c_str(), S_IFSOCK | 0666, 0), 0);
    std::map<std::string, int> refusals = {{"plain", EEXIST}, {"planted", EEXIST}, {"dangling", EEXIST},
                                           {"link", EEXIST},  {"missing", ENOENT}, {"socket", ENOTSUP}};
    if (::mknod((source / "device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0)
        refusals["device"] = ENOTSUP;
    const Items before = contents(home.path());

    for (const auto& [name, code] : refusals)
        EXPECT_EQ(copy(name.c_str()), code) << name;

    EXPECT_EQ(contents(home.path()), before);
}

TEST_F(ItemCopierTest, AnAbandonedCopyFailsAndLeavesNoPartialFile)
{
    writeFile(source / "big", randomBytes(3 * 1024 * 1024));
    std::atomic<bool> abandon{true};
    ItemCopier quitting(&abandon);

    EXPECT_EQ(copy("big", quitting), ECANCELED);
    EXPECT_EQ(describe(destination / "big"), "missing");
}

TEST_F(ItemCopierTest, AcrossFileSystemsAFileIsCopiedInFullAndAFullDiskLeavesNoTruncatedFile)
{
    const fs::path small = home.path() / "small";
    makeFolder(small);
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(small.c_str(), MNT_DETACH); });
    writeFile(source / "big", randomBytes(1024 * 1024));
    writeFile(small / "local", randomBytes(600 * 1024 + 5));
    setTimes(small / "local", {1700000000, 999999999});
    const int smallFd = openFolder(small);

    // copy_file_range refuses to cross file systems: these take the read and write way, the copy within
    // the full one copy_file_range.
    EXPECT_EQ(copy("local", copier, smallFd), 0);
    EXPECT_EQ(copy("big", copier, sourceFd, smallFd), ENOSPC);
    EXPECT_EQ(copy("local", copier, smallFd, smallFd, "local-copy"), ENOSPC);
    ::close(smallFd);

    EXPECT_EQ(describe(destination / "local"), describe(small / "local"));
    EXPECT_EQ(contents(small), (Items{"local=" + readFile(small / "local")}));
}

} // namespace
