#include "engine/Trash.h"

#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// The original path each .trashinfo of the folder names, by the .trashinfo's name.
std::map<std::string, std::string> originalsIn(const fs::path& info)
{
    std::map<std::string, std::string> originals;
    for (const fs::directory_entry& entry : fs::directory_iterator(info))
        originals[entry.path().filename().native()] = trashedOriginal(entry.path());
    return originals;
}

class TrashTest : public ::testing::Test {
protected:
    // Moves the item at `path` (a path short enough to open its parent by) into `into`; the error code.
    int moveToTrash(Trash& into, const fs::path& path)
    {
        const int parentFd = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const std::optional<FsError> failure = into.moveToTrash(parentFd, path.filename().c_str(), path);
        ::close(parentFd);
        return failure ? failure->code : 0;
    }

    TestHome home;
    Trash trash{home.dataHome()};
    const fs::path files = home.dataHome() / "Trash" / "files";
    const fs::path info = home.dataHome() / "Trash" / "info";
};

// A name is claimed by its .trashinfo; an entry in files/ that has none is not replaced either.
TEST_F(TrashTest, ATakenNameGetsTheNextFreeOneAndEachInfoNamesTheEscapedPlaceAndLocalDate)
{
    const std::string name = "R\xc3\xa9sum\xc3\xa9 100%.txt";
    for (const char* folder : {"first", "second", "third"})
        writeItems(home.path() / folder, {name + "=" + folder});
    const std::time_t before = std::time(nullptr);

    EXPECT_EQ(moveToTrash(trash, home.path() / "first" / name), 0);
    for (const fs::path& folder : {files.parent_path(), files, info})
        EXPECT_EQ(fs::status(folder).permissions(), fs::perms(0700)) << folder;
    writeItems(files, {name + ".3=left by a crash"});
    for (const char* folder : {"second", "third"})
        EXPECT_EQ(moveToTrash(trash, home.path() / folder / name), 0) << folder;
    EXPECT_EQ(moveToTrash(trash, home.path() / "first" / name), ENOENT); // and leaves no .trashinfo

    EXPECT_EQ(contents(files),
              (Items{name + "=first", name + ".2=second", name + ".3=left by a crash", name + ".4=third"}));
    EXPECT_EQ(originalsIn(info), (std::map<std::string, std::string>{
                                     {name + ".trashinfo", (home.path() / "first" / name).native()},
                                     {name + ".2.trashinfo", (home.path() / "second" / name).native()},
                                     {name + ".4.trashinfo", (home.path() / "third" / name).native()}}));
    // Every byte beyond the unreserved ones is escaped, "/" is not; the date is local time.
    const std::string text = readFile(info / (name + ".trashinfo"));
    const std::string start =
        "[Trash Info]\nPath=" + home.path().native() + "/first/R%C3%A9sum%C3%A9%20100%25.txt\nDeletionDate=";
    ASSERT_TRUE(text.starts_with(start)) << text;
    std::tm deleted{};
    const char* rest = ::strptime(text.c_str() + start.size(), "%Y-%m-%dT%H:%M:%S", &deleted);
    ASSERT_NE(rest, nullptr) << text;
    EXPECT_STREQ(rest, "\n");
    deleted.tm_isdst = -1;
    EXPECT_GE(std::mktime(&deleted), before);
    EXPECT_LE(std::mktime(&deleted), std::time(nullptr));
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
    std::string longName = "x";
    for (int i = 0; i < 125; ++i)
        longName += "\xc3\xa9";
    for (const std::string& name : {raw, longName}) {
        writeFile("/proc/self/fd/" + std::to_string(deepFd) + "/" + name, name);
        EXPECT_EQ(trash.moveToTrash(deepFd, name.c_str(), deepPath / name), std::nullopt);
    }

    EXPECT_EQ(::faccessat(deepFd, raw.c_str(), F_OK, AT_SYMLINK_NOFOLLOW), -1);
    const Items trashed = contents(files);
    ASSERT_EQ(trashed.size(), 2u);
    EXPECT_EQ(*trashed.begin(), raw + "=" + raw);
    const std::string cut = trashed.rbegin()->substr(0, trashed.rbegin()->find('='));
    EXPECT_LT(cut.size(), longName.size());
    EXPECT_NE(static_cast<unsigned char>(longName[cut.size()]) & 0xC0, 0x80) << "cut inside a character";
    EXPECT_EQ(*trashed.rbegin(), cut + "=" + longName);
    EXPECT_TRUE(longName.starts_with(cut));

    EXPECT_NE(readFile(info / (raw + ".trashinfo")).find("/caf%E9%20%FF.txt\n"), std::string::npos);
    EXPECT_EQ(originalsIn(info),
              (std::map<std::string, std::string>{{raw + ".trashinfo", (deepPath / raw).native()},
                                                  {cut + ".trashinfo", (deepPath / longName).native()}}));
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
    writeItems(volume, {"docs/a.txt=a", "docs/b.txt=b", "docs/c.txt=c", ".Trash=/"});
    ::chmod((volume / ".Trash").c_str(), 0777);

    EXPECT_EQ(moveToTrash(trash, volume / "docs" / "a.txt"), 0);
    const fs::path own = volume / (".Trash-" + uid);
    EXPECT_EQ(fs::symlink_status(own).permissions(), fs::perms(0700));
    EXPECT_EQ(contents(own / "files"), (Items{"a.txt=a"}));
    EXPECT_EQ(trashedOriginal(own / "info" / "a.txt.trashinfo"), "docs/a.txt");
    EXPECT_FALSE(fs::exists(home.dataHome() / "Trash"));

    ::chmod((volume / ".Trash").c_str(), 01777);
    Trash shared(home.dataHome());
    EXPECT_EQ(moveToTrash(shared, volume / "docs" / "b.txt"), 0);
    EXPECT_EQ(contents(volume / ".Trash" / uid / "files"), (Items{"b.txt=b"}));
    EXPECT_EQ(trashedOriginal(volume / ".Trash" / uid / "info" / "b.txt.trashinfo"), "docs/b.txt");

    removeTree(volume / ".Trash");
    ::chmod(own.c_str(), 0755);
    Trash refusing(home.dataHome());
    EXPECT_EQ(moveToTrash(refusing, volume / "docs" / "c.txt"), Trash::kNoTrash);
    EXPECT_EQ(readFile(volume / "docs" / "c.txt"), "c");
    EXPECT_EQ(originalsIn(own / "info").size(), 1u);
}

} // namespace
