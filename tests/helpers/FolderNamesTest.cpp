#include "Helpers/FolderNames.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class FolderNamesTest : public ::testing::Test {
protected:
    void SetUp() override { makeFolder(folder); }
    void TearDown() override
    {
        if (fd >= 0)
            ::close(fd);
    }
    int openFolder()
    {
        fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_GE(fd, 0);
        return fd;
    }

    TestHome home;
    const fs::path folder = home.path() / "folder";
    int fd = -1;
};

TEST_F(FolderNamesTest, KnowsEveryKindOfItemByItsBytesButNotDotEntriesAndAsksTheFolderWhenUnread)
{
    writeFile(folder / "file.txt", "x");
    writeFile(folder / std::string("caf\xe9") / "inner", "x");
    makeSymlink("nowhere", folder / "dangling");

    const FolderNames names(openFolder());

    for (const char* name : {"file.txt", "caf\xe9", "dangling"})
        EXPECT_TRUE(names.contains(fd, name)) << name;
    for (const char* name : {"inner", "file", ".", ".."})
        EXPECT_FALSE(names.contains(fd, name)) << name;
    // A folder just created is known to be empty; one whose listing could not be read is asked.
    EXPECT_FALSE(FolderNames().contains(fd, "file.txt"));
    const FolderNames unreadable(-1);
    EXPECT_TRUE(unreadable.contains(fd, "file.txt"));
    EXPECT_FALSE(unreadable.contains(fd, "other.txt"));
}

TEST_F(FolderNamesTest, ReadsAListingLongerThanOneChunkFromItsStart)
{
    // About 250 bytes a record: 600 of them take several reads.
    const std::string padding(230, 'n');
    for (int i = 0; i < 600; ++i)
        writeFile(folder / (padding + std::to_string(i)), "");
    openFolder();
    char scratch[4096];
    ASSERT_GT(::getdents64(fd, scratch, sizeof scratch), 0); // the offset no longer at the start

    const FolderNames names(fd);

    for (int i = 0; i < 600; ++i)
        ASSERT_TRUE(names.contains(fd, (padding + std::to_string(i)).c_str())) << i;
    EXPECT_FALSE(names.contains(fd, (padding + "600").c_str()));
}

} // namespace
