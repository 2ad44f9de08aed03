#include "engine/DirectoryCopier.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

void setTimes(const fs::path& path, timespec accessed, timespec modified)
{
    const timespec times[2] = {accessed, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string linkTarget(const fs::path& path)
{
    char target[4096];
    const ssize_t size = ::readlink(path.c_str(), target, sizeof target);
    return size < 0 ? std::string("<none>") : std::string(target, static_cast<std::size_t>(size));
}

// What a copy must keep of one item: its kind, permission bits, modification time to the nanosecond, and
// its content or link target.
std::string describe(const fs::path& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return "missing";
    std::string description = std::to_string(status.st_mode & 07777) + " " +
                              std::to_string(status.st_mtim.tv_sec) + "." +
                              std::to_string(status.st_mtim.tv_nsec);
    if (S_ISDIR(status.st_mode))
        return "folder " + description;
    if (S_ISLNK(status.st_mode))
        return "link " + description + " -> " + linkTarget(path);
    return "file " + description + " " + readFile(path);
}

// Every item below `root` (never through a link), by path relative to it.
std::map<std::string, std::string> snapshot(const fs::path& root)
{
    std::map<std::string, std::string> items;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
        items[entry.path().lexically_relative(root).native()] = describe(entry.path());
    return items;
}

std::set<std::string> regularFilesBelow(const fs::path& root)
{
    std::set<std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        if (fs::is_regular_file(fs::symlink_status(entry.path())))
            files.insert(entry.path().lexically_relative(root).native());
    }
    return files;
}

// The names of a folder in the order the file system lists them, as an independent reference.
std::vector<std::string> listingOrder(const fs::path& folder)
{
    std::vector<std::string> names;
    DIR* dir = ::opendir(folder.c_str());
    while (dirent* entry = dir ? ::readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    if (dir)
        ::closedir(dir);
    return names;
}

void appendDepthFirst(const fs::path& folder, std::vector<fs::path>& files)
{
    for (const std::string& name : listingOrder(folder)) {
        if (fs::is_directory(fs::symlink_status(folder / name)))
            appendDepthFirst(folder / name, files);
        else
            files.push_back(folder / name);
    }
}

int openDescriptorCount()
{
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// A chain of `depth` folders named `name`, opened without building a path, so it may run past PATH_MAX.
int openChain(const fs::path& base, const std::string& name, int depth)
{
    int fd = ::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < depth && fd >= 0; ++level) {
        const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    return fd;
}

void writeAt(int folderFd, const char* name, const std::string& content)
{
    const int fd = ::openat(folderFd, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << name;
    ASSERT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ::close(fd);
}

std::string readAt(int folderFd, const char* name)
{
    const int fd = ::openat(folderFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return "<missing>";
    std::string content(4096, '\0');
    const ssize_t got = ::read(fd, content.data(), content.size());
    ::close(fd);
    content.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return content;
}

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

class DirectoryCopierTest : public ::testing::Test {
protected:
    fs::path source() const { return home.path() / "Mobile Documents"; }
    fs::path destination() const { return home.path() / "backups" / "2026.11.22-10.00.00"; }

    bool copy(const std::function<void(const fs::path&)>& alsoOnProgress = {})
    {
        return DirectoryCopier::copyDirectoryAtPath(source(), destination(), cancel,
                                                    [&](const fs::path& copied) {
                                                        progress.push_back(copied);
                                                        if (alsoOnProgress)
                                                            alsoOnProgress(copied);
                                                    });
    }

    std::vector<std::string> progressRelative() const
    {
        std::vector<std::string> names;
        for (const fs::path& copied : progress)
            names.push_back(copied.lexically_relative(source()).native());
        return names;
    }

    TestHome home;
    std::atomic<bool> cancel{false};
    std::vector<fs::path> progress;
};

TEST_F(DirectoryCopierTest, CopiesEveryItemWithItsPermissionsTimesAndLinkTargets)
{
    writeFile(source() / "notes.txt", "hello");
    writeFile(source() / ".hidden", "hidden");
    writeFile(source() / std::string("caf\xe9 menu.txt"), "not UTF-8");
    writeFile(source() / "Pages" / "Report.pages" / "Index.zip", std::string(300 * 1024, '\x7f'));
    writeFile(source() / "script.sh", "#!/bin/sh\n");
    writeFile(source() / "read-only" / "inside.txt", "inside");
    makeFolder(source() / "empty");
    makeSymlink("notes.txt", source() / "to-file");
    makeSymlink("Pages", source() / "to-folder");
    makeSymlink("nowhere/missing", source() / "dangling");
    ::chmod((source() / "notes.txt").c_str(), 0600);
    ::chmod((source() / "script.sh").c_str(), 0755);
    ::chmod((source() / "Pages").c_str(), 0750);
    int second = 1;
    for (const fs::path& item :
         {source() / "notes.txt", source() / "to-file", source() / "Pages" / "Report.pages",
          source() / "Pages", source() / "read-only", source() / "empty", source()})
        setTimes(item, {1600000000, 1}, {1700000000 + second++, 123456789});
    ::chmod((source() / "read-only").c_str(), 0555);
    const std::map<std::string, std::string> original = snapshot(source());

    EXPECT_TRUE(copy());

    EXPECT_EQ(snapshot(destination()), original);
    EXPECT_EQ(describe(destination()), describe(source()));
    EXPECT_THAT(progressRelative(),
                UnorderedElementsAre("notes.txt", ".hidden", "caf\xe9 menu.txt",
                                     "Pages/Report.pages/Index.zip", "script.sh", "read-only/inside.txt",
                                     "to-file", "to-folder", "dangling"));
}

TEST_F(DirectoryCopierTest, FollowsTheListingOrderDepthFirst)
{
    for (int i = 0; i < 8; ++i) {
        writeFile(source() / ("file" + std::to_string(i)), "x");
        writeFile(source() / ("folder" + std::to_string(i)) / "a", "x");
        writeFile(source() / ("folder" + std::to_string(i)) / "b", "x");
    }
    std::vector<fs::path> expected;
    appendDepthFirst(source(), expected);
    std::vector<fs::path> sorted = expected;
    std::sort(sorted.begin(), sorted.end());
    ASSERT_NE(expected, sorted) << "this file system lists names sorted: the order cannot be told apart";

    EXPECT_TRUE(copy());

    EXPECT_EQ(progress, expected);
}

TEST_F(DirectoryCopierTest, FinderClutterIsLeftOutAndFoldersAloneReportNoProgress)
{
    writeFile(source() / ".DS_Store", "clutter");
    writeFile(source() / "a" / ".DS_Store", "clutter");
    writeFile(source() / "a" / "b" / ".DS_Store", "clutter");
    writeFile(source() / "c" / ".DS_Store" / "inside", "a folder of that name is not entered");

    EXPECT_TRUE(copy());

    EXPECT_THAT(progress, IsEmpty());
    std::vector<std::string> copied;
    for (const auto& [path, description] : snapshot(destination()))
        copied.push_back(path + " " + description.substr(0, description.find(' ')));
    EXPECT_THAT(copied, ElementsAre("a folder", "a/b folder", "c folder"));
}

TEST_F(DirectoryCopierTest, ItemsAlreadyAtTheDestinationAreLeftAsTheyAre)
{
    writeFile(source() / "same-name.txt", "new");
    writeFile(source() / "over-dangling-link", "new");
    writeFile(source() / "fresh.txt", "fresh");
    writeFile(source() / "folder" / "inner.txt", "inner");
    writeFile(destination() / "same-name.txt", "old");
    setTimes(destination() / "same-name.txt", {1000000000, 1}, {1000000000, 2});
    makeSymlink("nowhere", destination() / "over-dangling-link");
    makeFolder(destination() / "folder");
    ::chmod((destination() / "folder").c_str(), 0750);
    const std::string before = describe(destination() / "same-name.txt");

    EXPECT_TRUE(copy());

    EXPECT_EQ(describe(destination() / "same-name.txt"), before);
    EXPECT_EQ(linkTarget(destination() / "over-dangling-link"), "nowhere");
    EXPECT_EQ(readFile(destination() / "fresh.txt"), "fresh");
    // An existing folder is entered, and keeps its own permissions.
    EXPECT_EQ(readFile(destination() / "folder" / "inner.txt"), "inner");
    EXPECT_EQ(fs::status(destination() / "folder").permissions(), fs::perms(0750));
    EXPECT_THAT(progressRelative(), UnorderedElementsAre("fresh.txt", "folder/inner.txt"));
}

TEST_F(DirectoryCopierTest, LinksPlantedAtTheDestinationAreNeverWrittenThrough)
{
    writeFile(source() / "doc.txt", "secret");
    writeFile(source() / "sub" / "inner.txt", "secret");
    writeFile(home.path() / "outside.txt", "outside");
    makeFolder(home.path() / "outside-folder");
    makeSymlink((home.path() / "outside.txt").string(), destination() / "doc.txt");
    makeSymlink((home.path() / "outside-folder").string(), destination() / "sub");

    EXPECT_TRUE(copy());

    EXPECT_EQ(readFile(home.path() / "outside.txt"), "outside");
    EXPECT_TRUE(fs::is_empty(home.path() / "outside-folder"));
    EXPECT_EQ(linkTarget(destination() / "doc.txt"), (home.path() / "outside.txt").string());
    EXPECT_EQ(linkTarget(destination() / "sub"), (home.path() / "outside-folder").string());
}

TEST_F(DirectoryCopierTest, ADestinationThatIsAFileMakesEveryCopyFailQuietly)
{
    writeFile(source() / "a.txt", "a");
    writeFile(source() / "d" / "b.txt", "b");
    writeFile(destination(), "I am a file");

    EXPECT_TRUE(copy());

    EXPECT_EQ(readFile(destination()), "I am a file");
    // A failed copy still counts as a step of the walk.
    EXPECT_THAT(progressRelative(), UnorderedElementsAre("a.txt", "d/b.txt"));
}

TEST_F(DirectoryCopierTest, ACancelStopsTheWholeWalkRightAfterTheNextCopy)
{
    for (int i = 0; i < 6; ++i) {
        writeFile(source() / ("top" + std::to_string(i)), "x");
        writeFile(source() / "sub" / ("inner" + std::to_string(i)), "x");
    }

    // Asked for inside the sub-folder: the folders above must stop too.
    const bool finished = copy([&](const fs::path& copied) {
        if (copied.parent_path() == source() / "sub")
            cancel = true;
    });

    EXPECT_FALSE(finished);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().parent_path(), source() / "sub");
    EXPECT_EQ(regularFilesBelow(destination()).size(), progress.size() + 1);
}

TEST_F(DirectoryCopierTest, ACancelWithNothingLeftToCopyStillFinishes)
{
    writeFile(source() / "first.txt", "x");
    writeFile(source() / "already-there.txt", "x");
    writeFile(source() / "later" / ".DS_Store", "x");
    makeFolder(source() / "empty");
    writeFile(destination() / "already-there.txt", "x");

    EXPECT_TRUE(copy([&](const fs::path&) { cancel = true; }));
    EXPECT_THAT(progressRelative(), ElementsAre("first.txt"));

    // Still set, and now first.txt is at the destination too: no copy is attempted, so nothing stops.
    progress.clear();
    EXPECT_TRUE(copy());
    EXPECT_THAT(progress, IsEmpty());
}

TEST_F(DirectoryCopierTest, WhatCannotBeReadIsPassedOverAndTheWalkGoesOn)
{
    writeFile(source() / "readable.txt", "r");
    writeFile(source() / "locked.txt", "l");
    writeFile(source() / "locked-folder" / "inside.txt", "i");
    writeFile(source() / "z" / "after.txt", "a");
    ::chmod((source() / "locked.txt").c_str(), 0);
    ::chmod((source() / "locked-folder").c_str(), 0);
    ::chmod(home.path().c_str(), 0755);
    makeFolder(home.path() / "backups");
    ::chmod((home.path() / "backups").c_str(), 0777);

    const std::optional<std::string> answer = runUnprivileged([&] {
        const bool finished = copy();
        std::vector<std::string> names = progressRelative();
        std::sort(names.begin(), names.end());
        std::string answer = finished ? "true" : "false";
        for (const std::string& name : names)
            answer += " " + name;
        return answer;
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";

    // The failed copy of locked.txt still counts as a step; the locked folder gives an empty copy.
    EXPECT_EQ(*answer, "true locked.txt readable.txt z/after.txt");
    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{"readable.txt", "z/after.txt"}));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(destination() / "locked-folder")));
}

TEST_F(DirectoryCopierTest, ItemsThatVanishMidWalkArePassedOver)
{
    for (int i = 0; i < 10; ++i) {
        writeFile(source() / ("file" + std::to_string(i)), "content");
        writeFile(source() / ("folder" + std::to_string(i)) / "inner", "content");
    }

    // The first copy takes everything else away: all of it was listed already.
    fs::path first;
    EXPECT_TRUE(copy([&](const fs::path& copied) {
        if (!first.empty())
            return;
        first = copied;
        for (const std::string& name : listingOrder(source())) {
            if (!(copied.parent_path() == source() && copied.filename() == name) &&
                !(copied.parent_path().parent_path() == source() && copied.parent_path().filename() == name))
                removeTree(source() / name);
        }
    }));

    EXPECT_EQ(regularFilesBelow(destination()),
              (std::set<std::string>{first.lexically_relative(source()).native()}));
    EXPECT_EQ(readFile(destination() / first.lexically_relative(source())), "content");
}

TEST_F(DirectoryCopierTest, CopiesTreesDeeperThanPathMax)
{
    const std::string name(200, 'n');
    const int depth = 24; // 24 * 201 bytes, well past PATH_MAX
    makeFolder(source());
    const int deepest = makeDeepChain(source(), name.c_str(), depth);
    writeAt(deepest, "leaf.txt", "at the bottom");
    ::close(deepest);

    EXPECT_TRUE(copy());

    const int copied = openChain(destination(), name, depth);
    ASSERT_GE(copied, 0);
    EXPECT_EQ(readAt(copied, "leaf.txt"), "at the bottom");
    ::close(copied);
    std::string expectedPath = source().native();
    for (int level = 0; level < depth; ++level)
        expectedPath += "/" + name;
    EXPECT_THAT(progress, ElementsAre(fs::path(expectedPath + "/leaf.txt")));
    EXPECT_GT(expectedPath.size(), std::size_t(PATH_MAX));
}

TEST_F(DirectoryCopierTest, DeepTreesKeepFewDescriptorsOpenAndMissNothing)
{
    // A chain folder name that this file system lists before some of the files, so that the walk comes
    // back to folders whose descriptors it gave up and still has entries to copy there.
    makeFolder(home.path() / "probe");
    for (int i = 0; i < 10; ++i) {
        writeFile(home.path() / "probe" / ("f" + std::to_string(i)), "");
        makeFolder(home.path() / "probe" / ("n" + std::to_string(i)));
    }
    std::string chain;
    bool fileSeen = false;
    const std::vector<std::string> order = listingOrder(home.path() / "probe");
    for (auto name = order.rbegin(); name != order.rend() && chain.empty(); ++name) {
        if ((*name)[0] == 'f')
            fileSeen = true;
        else if (fileSeen)
            chain = *name;
    }
    ASSERT_FALSE(chain.empty());

    const int depth = static_cast<int>(DirectoryCopier::kMaxHeldLevels) * 2 + 10;
    makeFolder(source());
    int fd = ::open(source().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < depth; ++level) {
        for (int i = 0; i < 10; ++i)
            writeAt(fd, ("f" + std::to_string(i)).c_str(), std::to_string(level));
        ASSERT_EQ(::mkdirat(fd, chain.c_str(), 0755), 0);
        const int next = ::openat(fd, chain.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    ::close(fd);
    const std::map<std::string, std::string> original = snapshot(source());
    const int descriptorsBefore = openDescriptorCount();

    int mostDescriptors = 0;
    EXPECT_TRUE(
        copy([&](const fs::path&) { mostDescriptors = std::max(mostDescriptors, openDescriptorCount()); }));

    EXPECT_EQ(progress.size(), std::size_t(depth) * 10);
    EXPECT_EQ(snapshot(destination()), original);
    EXPECT_LE(mostDescriptors - descriptorsBefore, static_cast<int>(DirectoryCopier::kMaxHeldLevels) * 2 + 4);
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST_F(DirectoryCopierTest, ADiskThatFillsUpLeavesNoTruncatedFileAndTheWalkGoesOn)
{
    ScopedTmpfs small(home.path() / "backups", "256k");
    if (!small.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here";
    writeFile(source() / "a.txt", std::string(10 * 1024, 'a'));
    writeFile(source() / "big.bin", std::string(1024 * 1024, 'b'));
    writeFile(source() / "c" / "d.txt", std::string(10 * 1024, 'd'));

    EXPECT_TRUE(copy());

    EXPECT_EQ(regularFilesBelow(destination()), (std::set<std::string>{"a.txt", "c/d.txt"}));
    EXPECT_EQ(readFile(destination() / "c" / "d.txt"), std::string(10 * 1024, 'd'));
    EXPECT_THAT(progressRelative(), UnorderedElementsAre("a.txt", "big.bin", "c/d.txt"));
}

} // namespace
