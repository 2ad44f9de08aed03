#include "Helpers/DirectoryUtility.h"
#include "platform/PasswordDatabase.h"
#include "platform/PosixPasswordDatabase.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

class FolderMeasureTest : public ::testing::Test {
protected:
    fs::path tree() const { return home.path() / "Library" / "Mobile Documents"; }
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

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree());

    const auto folderLinkSize = (home.path() / "outside").string().size();
    EXPECT_EQ(measure.totalSize, 100u + 2000u + 7u + 5u + folderLinkSize + 0u);
    EXPECT_EQ(measure.totalFilesCount, 6);
}

TEST_F(FolderMeasureTest, FinderClutterAndEmptyFoldersMeasureNothing)
{
    writeFileOfSize(tree() / ".DS_Store", 6148);
    writeFileOfSize(tree() / "a" / ".DS_Store", 6148);
    makeFolder(tree() / "a" / "b" / "c");

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree());

    EXPECT_EQ(measure.totalSize, 0u);
    EXPECT_EQ(measure.totalFilesCount, 0);
}

TEST_F(FolderMeasureTest, AFolderNamedLikeFinderClutterIsStillWalkedInto)
{
    writeFileOfSize(tree() / ".DS_Store" / "inside", 42);

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree());

    EXPECT_EQ(measure.totalSize, 42u);
    EXPECT_EQ(measure.totalFilesCount, 1);
}

TEST_F(FolderMeasureTest, MissingFolderOrAFileMeasuresZero)
{
    EXPECT_EQ(DirectoryUtility::sizeForDirectoryAtPath(tree() / "nothing-here").totalFilesCount, 0);
    writeFileOfSize(home.path() / "plain", 10);
    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(home.path() / "plain");
    EXPECT_EQ(measure.totalSize, 0u);
    EXPECT_EQ(measure.totalFilesCount, 0);
}

TEST_F(FolderMeasureTest, NamesThatAreNotUtf8AreCountedLikeAnyOther)
{
    writeFileOfSize(tree() / std::string("caf\xe9.txt"), 11);
    writeFileOfSize(tree() / std::string("\xff\xfe folder") / std::string("\x80"), 13);

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree());

    EXPECT_EQ(measure.totalSize, 24u);
    EXPECT_EQ(measure.totalFilesCount, 2);
}

TEST_F(FolderMeasureTest, TreesDeeperThanPathMaxAreMeasuredCompletely)
{
    makeFolder(tree());
    // 2,500 levels of "dd/" is 7,500 bytes of path, well past PATH_MAX (4,096).
    int deepest = makeDeepChain(tree(), "dd", 2500);
    ASSERT_GE(deepest, 0);
    int file = ::openat(deepest, "bottom", O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(file, 0);
    ASSERT_EQ(::write(file, "1234567", 7), 7);
    ::close(file);
    ::close(deepest);
    // A sibling near the top is reached only after coming back up through released descriptors.
    writeFileOfSize(tree() / "dd" / "dd" / "sibling", 3);

    const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(tree());

    EXPECT_EQ(measure.totalSize, 10u);
    EXPECT_EQ(measure.totalFilesCount, 2);
}

TEST_F(FolderMeasureTest, UnreadableFoldersArePassedOver)
{
    writeFileOfSize(tree() / "open" / "visible", 5);
    writeFileOfSize(tree() / "locked" / "secret", 500);
    for (fs::path p = tree(); p != home.path().parent_path(); p = p.parent_path())
        ::chmod(p.c_str(), 0755);
    ::chmod((tree() / "locked").c_str(), 0);

    const fs::path root = tree();
    const std::optional<std::string> answer = runUnprivileged([&] {
        const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(root);
        return std::to_string(measure.totalSize) + "/" + std::to_string(measure.totalFilesCount);
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*answer, "5/1");
}

class ScriptedPasswordDatabase : public PasswordDatabase {
public:
    explicit ScriptedPasswordDatabase(std::optional<std::string> home)
        : m_home(std::move(home))
    {
    }
    std::optional<std::string> homeDirectoryOfUser(uid_t) const override { return m_home; }

private:
    std::optional<std::string> m_home;
};

TEST(RealHomeDirectoryTest, ComesFromThePasswordDatabaseNotTheEnvironment)
{
    TestHome home; // HOME now points at a temporary folder
    EXPECT_EQ(DirectoryUtility::realHomeDirectory(ScriptedPasswordDatabase("/home/jane")), "/home/jane");
    const std::optional<std::string> real = PosixPasswordDatabase().homeDirectoryOfUser(::getuid());
    ASSERT_TRUE(real.has_value());
    EXPECT_EQ(DirectoryUtility::realHomeDirectory(PosixPasswordDatabase()), *real);
    EXPECT_NE(*real, home.path().string());
}

TEST(RealHomeDirectoryDeathTest, AMissingEntryEndsTheProgramThroughTheAssertion)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(DirectoryUtility::realHomeDirectory(ScriptedPasswordDatabase(std::nullopt)),
                 "realHomeDirectory.*Helpers/CocoaAdditions:76.*pw");
}

} // namespace
