#include "engine/Trash.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// The Path= value of a .trashinfo, unescaped, or "" when the file does not have the expected form.
std::string originalPathIn(const std::string& info)
{
    const std::string start = "[Trash Info]\nPath=";
    const std::size_t end = info.find("\nDeletionDate=");
    if (!info.starts_with(start) || end == std::string::npos)
        return {};
    std::string path;
    for (std::size_t i = start.size(); i < end; ++i) {
        if (info[i] == '%' && i + 2 < end) {
            path += static_cast<char>(std::stoi(info.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            path += info[i];
        }
    }
    return path;
}

// The names in a folder, with their contents for files.
std::map<std::string, std::string> contentsOf(const fs::path& folder)
{
    std::map<std::string, std::string> contents;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        contents[entry.path().filename().native()] =
            entry.is_regular_file() ? readFile(entry.path()) : "(folder)";
    return contents;
}

class TrashTest : public ::testing::Test {
protected:
    // Moves the item at `path` (a path short enough to open its parent by) into `into`.
    std::optional<FsError> moveToTrash(Trash& into, const fs::path& path)
    {
        const int parentFd = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_GE(parentFd, 0) << path;
        std::optional<FsError> failure = into.moveToTrash(parentFd, path.filename().c_str(), path);
        ::close(parentFd);
        return failure;
    }

    TestHome home;
    Trash trash{home.dataHome()};
    const fs::path files = home.dataHome() / "Trash" / "files";
    const fs::path info = home.dataHome() / "Trash" / "info";
};

// A name is claimed by its .trashinfo; an entry in files/ that has none is not replaced either.
TEST_F(TrashTest, ATakenNameGetsTheNextFreeOneAndAFailedMoveLeavesNoInfo)
{
    writeFile(files / "report.txt.3", "left by a crash");
    for (const char* folder : {"first", "second", "third"})
        writeFile(home.path() / folder / "report.txt", folder);

    for (const char* folder : {"first", "second", "third"})
        EXPECT_EQ(moveToTrash(trash, home.path() / folder / "report.txt"), std::nullopt) << folder;
    const std::optional<FsError> missing = moveToTrash(trash, home.path() / "first" / "report.txt");

    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code, ENOENT);
    EXPECT_EQ(contentsOf(files), (std::map<std::string, std::string>{{"report.txt", "first"},
                                                                     {"report.txt.2", "second"},
                                                                     {"report.txt.3", "left by a crash"},
                                                                     {"report.txt.4", "third"}}));
    std::map<std::string, std::string> originals;
    for (const auto& [name, content] : contentsOf(info))
        originals[name] = originalPathIn(content);
    EXPECT_EQ(originals, (std::map<std::string, std::string>{
                             {"report.txt.trashinfo", (home.path() / "first" / "report.txt").native()},
                             {"report.txt.2.trashinfo", (home.path() / "second" / "report.txt").native()},
                             {"report.txt.4.trashinfo", (home.path() / "third" / "report.txt").native()}}));
}

TEST_F(TrashTest, NamesThatAreNotUtf8AndPathsBeyondPathMaxAreTrashed)
{
    const std::string level(100, 'd');
    const int depth = PATH_MAX / 100 + 5;
    const int deepFd = makeDeepChain(home.path(), level.c_str(), depth);
    const std::shared_ptr<void> closeDeep(nullptr, [&](void*) { ::close(deepFd); });
    fs::path deepPath = home.path();
    for (int i = 0; i < depth; ++i)
        deepPath /= level;
    const std::string raw = "caf\xe9 \xff.txt";
    // Too long for ".trashinfo" to be added: the entry's name is cut, between two characters.
    std::string longName;
    for (int i = 0; i < 125; ++i)
        longName += "\xc3\xa9";
    for (const std::string& name : {raw, longName}) {
        const int fd = ::openat(deepFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0) << std::strerror(errno);
        ASSERT_EQ(::write(fd, name.data(), name.size()), static_cast<ssize_t>(name.size()));
        ::close(fd);
    }

    for (const std::string& name : {raw, longName})
        EXPECT_EQ(trash.moveToTrash(deepFd, name.c_str(), deepPath / name), std::nullopt);

    EXPECT_EQ(::faccessat(deepFd, raw.c_str(), F_OK, AT_SYMLINK_NOFOLLOW), -1);
    const std::map<std::string, std::string> trashed = contentsOf(files);
    ASSERT_EQ(trashed.size(), 2u);
    EXPECT_EQ(trashed.at(raw), raw);
    const std::string& cut = trashed.rbegin()->first;
    EXPECT_LT(cut.size(), longName.size());
    EXPECT_EQ(cut.size() % 2, 0u) << "cut inside a character";
    EXPECT_TRUE(longName.starts_with(cut));
    EXPECT_EQ(trashed.rbegin()->second, longName);

    const std::string rawInfo = readFile(info / (raw + ".trashinfo"));
    EXPECT_THAT(rawInfo, ::testing::HasSubstr("/caf%E9%20%FF.txt\n"));
    EXPECT_GT(originalPathIn(rawInfo).size(), static_cast<std::size_t>(PATH_MAX));
    EXPECT_EQ(originalPathIn(rawInfo), (deepPath / raw).native());
    EXPECT_EQ(originalPathIn(readFile(info / (cut + ".trashinfo"))), (deepPath / longName).native());
}

// Off the data home's volume, an item goes to its own volume's top directory: the administrator's
// .Trash when it is a sticky folder, else .Trash-$uid, which is refused unless private to the user.
TEST_F(TrashTest, AnotherVolumeUsesATrashInItsTopDirectory)
{
    const fs::path volume = home.path() / "volume";
    makeFolder(volume);
    if (::mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(volume.c_str(), MNT_DETACH); });
    const std::string uid = std::to_string(::getuid());
    for (const char* name : {"a.txt", "b.txt", "c.txt"})
        writeFile(volume / "docs" / name, name);
    makeFolder(volume / ".Trash");
    ::chmod((volume / ".Trash").c_str(), 0777);

    EXPECT_EQ(moveToTrash(trash, volume / "docs" / "a.txt"), std::nullopt);
    const fs::path own = volume / (".Trash-" + uid);
    struct stat status {};
    ASSERT_EQ(::lstat(own.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    EXPECT_EQ(readFile(own / "files" / "a.txt"), "a.txt");
    EXPECT_EQ(originalPathIn(readFile(own / "info" / "a.txt.trashinfo")), "docs/a.txt");
    EXPECT_FALSE(fs::exists(home.dataHome() / "Trash"));

    ::chmod((volume / ".Trash").c_str(), 01777);
    Trash shared(home.dataHome());
    EXPECT_EQ(moveToTrash(shared, volume / "docs" / "b.txt"), std::nullopt);
    EXPECT_EQ(readFile(volume / ".Trash" / uid / "files" / "b.txt"), "b.txt");
    EXPECT_EQ(originalPathIn(readFile(volume / ".Trash" / uid / "info" / "b.txt.trashinfo")), "docs/b.txt");

    removeTree(volume / ".Trash");
    ::chmod(own.c_str(), 0755);
    Trash refusing(home.dataHome());
    const std::optional<FsError> refused = moveToTrash(refusing, volume / "docs" / "c.txt");
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, Trash::kNoTrash);
    EXPECT_EQ(readFile(volume / "docs" / "c.txt"), "c.txt");
    EXPECT_EQ(contentsOf(own / "info").size(), 1u);
}

} // namespace
