#include "Helpers/DirectoryUtility.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class FolderMeasureTest : public ::testing::Test {
protected:
    fs::path tree() const { return home.path() / "Library" / "Mobile Documents"; }
    // As "bytes/files".
    static std::string measured(const fs::path& folder)
    {
        const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(folder);
        return std::to_string(measure.totalSize) + "/" + std::to_string(measure.totalFilesCount);
    }
    TestHome home;
};

TEST_F(FolderMeasureTest, CountsFilesLinksAndSpecialFilesButNotFoldersOrFinderClutter)
{
    writeFileOfSize(tree() / "com~apple~CloudDocs" / "a.txt", 100);
    writeFileOfSize(tree() / "com~apple~CloudDocs" / "sub" / "b.bin", 2000);
    writeFileOfSize(tree() / "com~apple~CloudDocs" / ".hidden", 7);
    writeFileOfSize(tree() / "com~apple~CloudDocs" / ".DS_Store", 6148);
    writeFileOfSize(tree() / "iCloud~com~example~Notes" / "sub" / ".DS_Store", 10);
    makeFolder(tree() / "iCloud~com~example~Notes" / "empty");
    // Counted by the link's own size (the length of its target text), never followed.
    makeSymlink("a.txt", tree() / "com~apple~CloudDocs" / "link-to-file");
    writeFileOfSize(home.path() / "outside" / "big", 50000);
    makeSymlink((home.path() / "outside").string(), tree() / "com~apple~CloudDocs" / "link-to-folder");
    ASSERT_EQ(::mkfifo((tree() / "fifo").c_str(), 0600), 0);

    const std::size_t folderLinkSize = (home.path() / "outside").string().size();
    EXPECT_EQ(measured(tree()), std::to_string(100 + 2000 + 7 + 5 + folderLinkSize + 0) + "/6");
}

TEST_F(FolderMeasureTest, OnlyItemsThatAreNotFoldersOrClutterCountWhateverTheirNames)
{
    writeFileOfSize(tree() / "clutter" / ".DS_Store", 6148);
    writeFileOfSize(tree() / "clutter" / "a" / ".DS_Store", 6148);
    makeFolder(tree() / "clutter" / "a" / "b" / "c");
    writeFileOfSize(tree() / "named-like-clutter" / ".DS_Store" / "inside", 42); // a folder: walked into
    writeFileOfSize(tree() / "not-utf8" / std::string("caf\xe9.txt"), 11);
    writeFileOfSize(tree() / "not-utf8" / std::string("\xff\xfe folder") / std::string("\x80"), 13);
    writeFileOfSize(home.path() / "plain", 10);

    EXPECT_EQ(measured(tree() / "clutter"), "0/0");
    EXPECT_EQ(measured(tree() / "named-like-clutter"), "42/1");
    EXPECT_EQ(measured(tree() / "not-utf8"), "24/2");
    EXPECT_EQ(measured(tree() / "nothing-here"), "0/0");
    EXPECT_EQ(measured(home.path() / "plain"), "0/0");
}

TEST_F(FolderMeasureTest, TreesDeeperThanPathMaxAreMeasuredCompletely)
{
    makeFolder(tree());
    // 2,500 levels of "dd/" is 7,500 bytes of path, well past PATH_MAX (4,096).
    const int deepest = makeDeepChain(tree(), "dd", 2500);
    ASSERT_GE(deepest, 0);
    writeFile(fs::path("/proc/self/fd") / std::to_string(deepest) / "bottom", "1234567");
    ::close(deepest);
    // A sibling near the top is reached only after coming back up through released descriptors.
    writeFileOfSize(tree() / "dd" / "dd" / "sibling", 3);

    EXPECT_EQ(measured(tree()), "10/2");
}

TEST_F(FolderMeasureTest, UnreadableFoldersArePassedOver)
{
    writeFileOfSize(tree() / "open" / "visible", 5);
    writeFileOfSize(tree() / "locked" / "secret", 500);
    for (fs::path p = tree(); p != home.path().parent_path(); p = p.parent_path())
        ::chmod(p.c_str(), 0755);
    ::chmod((tree() / "locked").c_str(), 0);

    const std::optional<std::string> answer = runUnprivileged([root = tree()] { return measured(root); });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*answer, "5/1");
}

TEST_F(FolderMeasureTest, AMeasureAbandonedAtQuitGoesThroughNothing)
{
    for (int folder = 0; folder < 8; ++folder) {
        const fs::path sub = tree() / ("container" + std::to_string(folder)) / "sub";
        for (int file = 0; file < 20; ++file)
            writeFileOfSize(sub / ("f" + std::to_string(file)), 10);
    }
    ASSERT_EQ(measured(tree()), "1600/160");
    const std::atomic<bool> keepCounting{false};
    const std::atomic<bool> abandon{true};

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree(), &keepCounting, &abandon);

    // Not one file was looked at, on any thread.
    EXPECT_EQ(measure.totalSize, 0u);
    EXPECT_EQ(measure.totalFilesCount, 0);
}

} // namespace
