// Backups that share unchanged files with the one before, keep holes and keep hard links: checked on real
// files by inode numbers, allocated blocks and du, never by asking the code under test.
#include "engine/BackupSpace.h"
#include "engine/DirectoryCopier.h"
#include "engine/NotCopiedList.h"
#include "engine/PreviousBackup.h"
#include "Helpers/ItemRemover.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

struct stat statusOf(const fs::path& item)
{
    struct stat status {};
    EXPECT_EQ(::lstat(item.c_str(), &status), 0) << item;
    return status;
}

ino_t inodeOf(const fs::path& item)
{
    return statusOf(item).st_ino;
}

std::uint64_t allocatedBytes(const fs::path& item)
{
    return static_cast<std::uint64_t>(statusOf(item).st_blocks) * 512;
}

// du's own count of the blocks in `item` that none of `countedFirst` holds.
std::uint64_t duBytes(const fs::path& item, const std::vector<fs::path>& countedFirst = {})
{
    std::string command = "du -s -B1";
    for (const fs::path& path : countedFirst)
        command += " '" + path.native() + "'";
    command += " '" + item.native() + "' | tail -n 1";
    FILE* pipe = ::popen(command.c_str(), "r");
    unsigned long long bytes = 0;
    EXPECT_EQ(std::fscanf(pipe, "%llu", &bytes), 1);
    ::pclose(pipe);
    return bytes;
}

// A file of `size` bytes holding data only in the given (offset, text) places.
void writeSparseFile(const fs::path& file, off_t size, const std::map<off_t, std::string>& data)
{
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    for (const auto& [offset, text] : data)
        ASSERT_EQ(::pwrite(fd, text.data(), text.size(), offset), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(::ftruncate(fd, size), 0);
    ::close(fd);
}

class SharedBackupsTest : public ::testing::Test {
protected:
    fs::path live() const { return home.path() / "Mobile Documents"; }
    fs::path backup(int number) const
    {
        return home.path() / "backups" / ("backup-" + std::to_string(number));
    }

    CopyOutcome copy(const fs::path& from, const fs::path& to, PreviousBackup* previous = nullptr)
    {
        return DirectoryCopier::copyDirectoryAtPath(
            from, to, cancel, [](const fs::path&) {}, nullptr, previous);
    }

    // A second backup made beside `number - 1`, which it shares with.
    void backUp(int number)
    {
        std::optional<PreviousBackup> previous;
        if (number > 1)
            previous.emplace(backup(number - 1));
        ASSERT_TRUE(copy(live(), backup(number), previous ? &*previous : nullptr).finished());
    }

    bool shared(const std::string& item, int first = 1, int second = 2) const
    {
        return inodeOf(backup(first) / item) == inodeOf(backup(second) / item);
    }

    TestHome home;
    std::atomic<bool> cancel{false};
};

TEST_F(SharedBackupsTest, OnlyFilesThatAgreeInEveryAttributeAreSharedAndTheRestIsCopiedAfresh)
{
    const timespec time{1700000000, 123456789};
    writeItems(live(),
               {"same=same", "sub/same=same", "size=short", "time=time", "nanoseconds=nanoseconds",
                "mode=mode", "attribute=attribute", "added-attribute=x", "kind=kind", "link=-> same",
                "listed=listed", "listed-folder/inner=inner", "new-later=/"},
               time);
    for (const char* item : {"attribute"})
        ASSERT_EQ(::setxattr((live() / item).c_str(), "user.colour", "blue", 4, 0), 0);
    writeItems(live(), {"large-attribute=x"}, time);
    const std::string large(3000, 'L');
    ASSERT_EQ(::setxattr((live() / "large-attribute").c_str(), "user.large", large.data(), large.size(), 0),
              0);
    backUp(1);

    writeItems(live(), {"size=shorter"}, time);
    setTimes(live() / "time", {1700000001, 123456789});
    setTimes(live() / "nanoseconds", {1700000000, 123456788});
    ASSERT_EQ(::chmod((live() / "mode").c_str(), 0600), 0);
    ASSERT_EQ(::setxattr((live() / "attribute").c_str(), "user.colour", "red!", 4, 0), 0);
    ASSERT_EQ(::setxattr((live() / "added-attribute").c_str(), "user.tag", "t", 1, 0), 0);
    // What the first backup holds in place of an item it lists as not copied is no copy it vouches for.
    ASSERT_FALSE(
        NotCopiedList::write(backup(1), {{"openat", "listed", EACCES}, {"openat", "listed-folder", EIO}}));
    fs::remove(backup(1) / "kind");
    fs::create_directory(backup(1) / "kind");
    writeItems(live(), {"new-later/file=new"}, time);
    backUp(2);

    EXPECT_TRUE(shared("same"));
    EXPECT_TRUE(shared("sub/same"));
    EXPECT_TRUE(shared("large-attribute"));
    for (const char* item : {"size", "time", "nanoseconds", "mode", "attribute", "added-attribute", "link",
                             "listed", "listed-folder/inner"})
        EXPECT_FALSE(shared(item)) << item;
    EXPECT_EQ(contents(backup(2)), contents(live()));
    EXPECT_EQ(snapshot(backup(2)), snapshot(live()));
    char colour[8] = {};
    EXPECT_EQ(::getxattr((backup(2) / "attribute").c_str(), "user.colour", colour, sizeof colour), 4);
    EXPECT_STREQ(colour, "red!");
}

TEST_F(SharedBackupsTest, SeparateFilesNeverBecomeOneAndLinkedFilesStayLinked)
{
    const timespec time{1700000000, 5};
    writeItems(live(), {"a=same text", "group/first=grouped", "other=separate"}, time);
    ASSERT_EQ(::link((live() / "a").c_str(), (live() / "b").c_str()), 0);
    ASSERT_EQ(::link((live() / "group/first").c_str(), (live() / "second").c_str()), 0);
    ASSERT_EQ(::link((live() / "group/first").c_str(), (live() / "group/third").c_str()), 0);
    backUp(1);
    EXPECT_EQ(inodeOf(backup(1) / "a"), inodeOf(backup(1) / "b"));
    EXPECT_EQ(inodeOf(backup(1) / "group/first"), inodeOf(backup(1) / "second"));
    EXPECT_EQ(inodeOf(backup(1) / "group/first"), inodeOf(backup(1) / "group/third"));
    EXPECT_NE(inodeOf(backup(1) / "a"), inodeOf(backup(1) / "other"));

    // "b" becomes a file of its own that agrees with the old one in every attribute.
    fs::remove(live() / "b");
    writeItems(live(), {"b=same text"}, time);
    backUp(2);
    EXPECT_NE(inodeOf(backup(2) / "a"), inodeOf(backup(2) / "b"));
    EXPECT_TRUE(shared("a") != shared("b")) << "one of the two may share, never both";
    EXPECT_EQ(inodeOf(backup(2) / "group/first"), inodeOf(backup(2) / "second"));
    EXPECT_EQ(inodeOf(backup(2) / "group/first"), inodeOf(backup(2) / "group/third"));
    EXPECT_TRUE(shared("group/first"));

    // Restored (the copy a restore makes, into an emptied live folder), the groups come back as they were.
    removeTree(live());
    ASSERT_TRUE(copy(backup(2), live()).finished());
    EXPECT_EQ(inodeOf(live() / "group/first"), inodeOf(live() / "second"));
    EXPECT_EQ(inodeOf(live() / "group/first"), inodeOf(live() / "group/third"));
    EXPECT_NE(inodeOf(live() / "a"), inodeOf(live() / "b"));
    EXPECT_EQ(statusOf(live() / "group/first").st_nlink, 3u);
    EXPECT_NE(inodeOf(live() / "second"), inodeOf(backup(2) / "second"))
        << "a restore never links to a backup";
    EXPECT_EQ(contents(live()), contents(backup(2)));
}

TEST_F(SharedBackupsTest, SparseFilesKeepTheirHolesThroughBackupAndRestore)
{
    makeFolder(live());
    constexpr off_t kSize = off_t(64) << 20;
    writeSparseFile(live() / "image", kSize, {{0, "head"}, {off_t(32) << 20, "middle"}});
    writeSparseFile(live() / "all-hole", kSize, {});
    writeSparseFile(live() / "hole-at-start", 1 << 20, {{(1 << 20) - 4, "tail"}});
    ASSERT_LT(allocatedBytes(live() / "image"), 1u << 20) << "this file system makes no holes";

    backUp(1);
    removeTree(live());
    ASSERT_TRUE(copy(backup(1), live()).finished());

    for (const fs::path& copy : {backup(1) / "image", live() / "image"}) {
        EXPECT_EQ(statusOf(copy).st_size, kSize);
        EXPECT_LT(allocatedBytes(copy), 1u << 20) << copy;
    }
    EXPECT_EQ(allocatedBytes(live() / "all-hole"), 0u);
    EXPECT_EQ(statusOf(live() / "all-hole").st_size, kSize);
    const std::string image = readFile(live() / "image");
    EXPECT_EQ(image.substr(0, 4), "head");
    EXPECT_EQ(image.substr(std::size_t(32) << 20, 6), "middle");
    EXPECT_EQ(image.find_first_not_of('\0', 4), std::size_t(32) << 20);
    EXPECT_EQ(readFile(live() / "hole-at-start"), std::string((1 << 20) - 4, '\0') + "tail");
}

TEST_F(SharedBackupsTest, DeletingEitherOfTwoSharingBackupsLeavesTheOtherWholeAndItsSpaceIsKnown)
{
    writeItems(live(), {"kept=kept", "folder/kept=kept too", "changed=before"}, timespec{1700000000, 1});
    writeFileOfSize(live() / "large", 1 << 20);
    ASSERT_EQ(::chmod((live() / "kept").c_str(), 0444), 0);
    ASSERT_EQ(::chmod((live() / "folder").c_str(), 0555), 0);
    backUp(1);
    writeItems(live(), {"changed=after!"});
    backUp(2);
    backUp(3);
    ASSERT_TRUE(shared("large") && shared("large", 2, 3));

    // Each backup on its own takes what du counts for it; deleting it frees what du counts for it after
    // the others.
    const BackupSpace first = BackupSpace::measure(backup(1), nullptr);
    EXPECT_TRUE(first.complete);
    EXPECT_EQ(first.onItsOwn, duBytes(backup(1)));
    EXPECT_EQ(first.freedByDeleting, duBytes(backup(1), {backup(2), backup(3)}));
    EXPECT_LT(first.freedByDeleting, first.onItsOwn - (1 << 20));

    const std::map<std::string, std::string> second = snapshot(backup(2));
    const Items secondItems = contents(backup(2));
    ASSERT_FALSE(ItemRemover::removeItemAtPath(backup(1)));
    ASSERT_FALSE(ItemRemover::removeItemAtPath(backup(3)));
    EXPECT_EQ(snapshot(backup(2)), second);
    EXPECT_EQ(contents(backup(2)), secondItems);
    const BackupSpace alone = BackupSpace::measure(backup(2), nullptr);
    EXPECT_EQ(alone.freedByDeleting, alone.onItsOwn);
    EXPECT_EQ(alone.onItsOwn, duBytes(backup(2)));

    std::atomic<bool> stop{true};
    EXPECT_FALSE(BackupSpace::measure(backup(2), &stop).complete);
    EXPECT_FALSE(BackupSpace::measure(backup(1), nullptr).complete);
}

} // namespace
