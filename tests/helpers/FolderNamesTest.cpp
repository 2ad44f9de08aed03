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

TEST(FolderNamesTest, KnowsEveryKindOfItemByItsBytesFromTheListingsStartAndAsksTheFolderWhenUnread)
{
    TestHome home;
    // About 250 bytes a record: 600 of them take several reads.
    const std::string padding(230, 'n');
    for (int i = 0; i < 600; ++i)
        writeFile(home.path() / (padding + std::to_string(i)), "");
    writeItems(home.path(), {"file.txt=x", "caf\xe9/inner=x", "dangling=-> nowhere"});
    const int fd = ::open(home.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    char scratch[4096];
    ASSERT_GT(::getdents64(fd, scratch, sizeof scratch), 0); // the offset no longer at the start

    const FolderNames names(fd);
    const std::string absent = padding + "600";

    for (int i = 0; i < 600; ++i)
        ASSERT_TRUE(names.contains(fd, (padding + std::to_string(i)).c_str())) << i;
    for (const char* name : {"file.txt", "caf\xe9", "dangling"})
        EXPECT_TRUE(names.contains(fd, name)) << name;
    for (const char* name : {"inner", "file", ".", "..", absent.c_str()})
        EXPECT_FALSE(names.contains(fd, name)) << name;
    // A folder just created is known to be empty; one whose listing could not be read is asked.
    EXPECT_FALSE(FolderNames().contains(fd, "file.txt"));
    EXPECT_TRUE(FolderNames(-1).contains(fd, "file.txt"));
    EXPECT_FALSE(FolderNames(-1).contains(fd, "other.txt"));
    ::close(fd);
}

} // namespace
