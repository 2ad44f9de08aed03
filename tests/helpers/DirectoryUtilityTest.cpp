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
    static std::string measured(const fs::path& folder, const std::atomic<bool>* abandon = nullptr)
    {
        const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(folder, nullptr, abandon);
        return std::to_string(measure.totalSize) + "/" + std::to_string(measure.totalFilesCount);
    }
    TestHome home;
};

// Links count by their own size (the length of their target text) and are never followed; a folder
// named like the clutter is walked into. A measure abandoned at quit goes through nothing, on any thread.
TEST_F(FolderMeasureTest, CountsEveryItemButFoldersAndFinderClutterByItsOwnSizeWhateverItsNameUnlessAbandoned)
{
    const fs::path outside = home.path() / "outside";
    writeItems(tree(),
               {"a/a.txt=" + std::string(100, 'x'), "a/sub/b.bin=" + std::string(2000, 'x'),
                "a/.hidden=1234567", "a/.DS_Store=" + std::string(6148, 'x'), "a/link-to-file=-> a.txt",
                "a/link-to-folder=-> " + outside.native(), "b/sub/.DS_Store=x", "b/c/d=/", "b/e/.DS_Store=x",
                "c/.DS_Store/inside=" + std::string(42, 'x'), "d/caf\xe9.txt=12345678901",
                "d/\xff\xfe folder/\x80=1234567890123"});
    writeItems(home.path(), {"outside/big=" + std::string(50000, 'x'), "plain=1234567890"});
    ASSERT_EQ(::mkfifo((tree() / "fifo").c_str(), 0600), 0);
    const std::string a = std::to_string(100 + 2000 + 7 + 5 + outside.native().size());

    std::string measures;
    for (const char* folder : {"a", "b", "c", "d", "", "nothing-here", "../../plain"})
        measures += measured(tree() / folder) + " ";
    const std::atomic<bool> abandon{true};
    measures += measured(tree(), &abandon);
    EXPECT_EQ(measures, a + "/5 0/0 42/1 24/2 " + std::to_string(std::stoi(a) + 42 + 24) + "/9 0/0 0/0 0/0");
}

TEST_F(FolderMeasureTest, TreesDeeperThanPathMaxAreMeasuredCompletely)
{
    makeFolder(tree());
    // 160 levels of 31 bytes: past PATH_MAX, and past the descriptors the walk keeps open.
    const std::string name(30, 'd');
    const int deepest = makeDeepChain(tree(), name.c_str(), 160);
    writeFile(fs::path("/proc/self/fd") / std::to_string(deepest) / "bottom", "1234567");
    ::close(deepest);
    // A sibling near the top is reached only after coming back up through released descriptors.
    writeFile(tree() / name / name / "sibling", "123");

    EXPECT_EQ(measured(tree()), "10/2");
}

TEST_F(FolderMeasureTest, UnreadableFoldersArePassedOver)
{
    writeItems(tree(), {"open/visible=12345", "locked/secret=" + std::string(500, 'x')});
    for (fs::path p = tree(); p != home.path().parent_path(); p = p.parent_path())
        ::chmod(p.c_str(), 0755);
    ::chmod((tree() / "locked").c_str(), 0);

    const std::optional<std::string> answer = runUnprivileged([root = tree()] { return measured(root); });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*answer, "5/1");
}

} // namespace
