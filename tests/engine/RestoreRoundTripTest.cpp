// A back-up and restore round trip on a varied tree, judged by rsync rather than by the code under test.
#include "engine/DirectoryCopier.h"
#include "engine/RestorePreparation.h"
#include "engine/Trash.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

bool isHiddenPath(const fs::path& relative)
{
    return std::any_of(relative.begin(), relative.end(),
                       [](const fs::path& c) { return c.native().starts_with('.'); });
}

void setModified(const fs::path& path, timespec modified)
{
    const timespec times[2] = {{0, UTIME_OMIT}, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

struct stat statusOf(const fs::path& path)
{
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

// Kind, permission bits, time to the nanosecond and content: what must not change.
std::string describe(const fs::path& path)
{
    const struct stat status = statusOf(path);
    return std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
           std::to_string(status.st_mtim.tv_nsec) + " " + (S_ISREG(status.st_mode) ? readFile(path) : "");
}

// rsync's itemized list of what it would change to make `destination` match `source`, one line each.
// The paths hold no quote, dollar or backslash.
std::vector<std::string> rsyncDifferences(const fs::path& source, const fs::path& destination, int& exitCode)
{
    // Folder times are left out: the restore keeps the folders that stay, with their own times, and
    // removing or adding items changes them anyway. Restored folders are compared by time below.
    const std::string command =
        "rsync -anc --delete --omit-dir-times --itemize-changes --exclude=.DS_Store \"" + source.native() +
        "/\" \"" + destination.native() + "/\" 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string output;
    char buffer[4096];
    while (const std::size_t got = pipe ? std::fread(buffer, 1, sizeof buffer, pipe) : 0)
        output.append(buffer, got);
    const int status = pipe ? ::pclose(pipe) : -1;
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::vector<std::string> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// The original place a .trashinfo names, unescaped.
fs::path originalPathIn(const fs::path& info)
{
    const std::string text = readFile(info);
    const std::size_t start = text.find("Path=") + 5;
    std::string path;
    for (std::size_t i = start; i < text.size() && text[i] != '\n'; ++i) {
        if (text[i] == '%') {
            path += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            path += text[i];
        }
    }
    return path;
}

class RestoreRoundTripTest : public ::testing::Test {
protected:
    fs::path live() const { return home.path() / "Mobile Documents"; }
    fs::path backup() const { return home.path() / "backups" / "2026.11.22-10.00.00"; }
    fs::path outside() const { return home.path() / "elsewhere"; }

    timespec randomTime()
    {
        return {std::uniform_int_distribution<long>(1600000000, 1700000000)(random),
                std::uniform_int_distribution<long>(0, 999999999)(random)};
    }

    std::string randomContent()
    {
        std::uniform_int_distribution<int> byte(0, 255);
        std::string content(static_cast<std::size_t>(std::uniform_int_distribution<int>(0, 6000)(random)),
                            '\0');
        for (char& c : content)
            c = static_cast<char>(byte(random));
        return content;
    }

    template<typename T>
    const T& pick(const std::vector<T>& items)
    {
        return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(random)];
    }

    void addFile(const fs::path& relative, std::string_view content, timespec modified)
    {
        writeFile(live() / relative, content);
        setModified(live() / relative, modified);
    }

    void buildLiveTree()
    {
        const std::vector<std::string> folderNames = {
            "Documents", "R\xc3\xa9sum\xc3\xa9s", "\xe6\x97\xa5\xe6\x9c\xac", "caf\xe9",       "Archive 2023",
            "Pages",     "\xff\xfe raw",          "Notes \xf0\x9f\x8e\x89",   ".hidden folder"};
        folders = {""};
        for (int i = 0; i < 40; ++i) {
            const fs::path parent = pick(folders);
            if (std::distance(parent.begin(), parent.end()) >= 4)
                continue;
            folders.push_back(parent / (pick(folderNames) + " " + std::to_string(i)));
            makeFolder(live() / folders.back());
        }
        const std::vector<std::string> fileNames = {
            "file", ".hidden", "na\xc3\xafve", "bad\xff\x80", "\xe6\x96\x87\xe6\x9b\xb8", "report"};
        for (int i = 0; i < 300; ++i) {
            files.push_back(pick(folders) / (pick(fileNames) + "-" + std::to_string(i) + ".dat"));
            addFile(files.back(), randomContent(), randomTime());
            ::chmod((live() / files.back()).c_str(), i % 7 == 0 ? 0600 : (i % 11 == 0 ? 0755 : 0644));
        }
        for (std::size_t i = 0; i < folders.size(); i += 3)
            addFile(folders[i] / ".DS_Store", "clutter", randomTime());
        const fs::path sibling =
            *std::find_if(files.begin(), files.end(), [](auto& f) { return !isHiddenPath(f); });
        links = {sibling.parent_path() / "to-sibling", "to-outside", folders[1] / "dangling"};
        makeSymlink(sibling.filename().native(), live() / links[0]);
        makeSymlink(outside().native(), live() / links[1]);
        makeSymlink("nowhere/missing", live() / links[2]);
        for (const fs::path& link : links)
            setModified(live() / link, randomTime());
        // The two halves of the kind swaps below: one folder that becomes a file, one file that becomes a
        // folder.
        addFile("Swap/folder that becomes a file/inner.txt", "inner", randomTime());
        addFile("Swap/folder that becomes a file/deeper/more.txt", "more", randomTime());
        addFile("Swap/file that becomes a folder", "a file for now", randomTime());
        addFile("Gone/whole folder/one.txt", "one", randomTime());
        addFile("Gone/whole folder/two.txt", "two", randomTime());
        for (const char* folder : {"Swap/folder that becomes a file", "Swap", "Gone/whole folder", "Gone"})
            setModified(live() / folder, randomTime());
        for (auto it = folders.rbegin(); it != folders.rend(); ++it)
            setModified(live() / *it, randomTime());
    }

    // Everything a user may do between the backup and the restore, except editing hidden files.
    void changeLiveTree()
    {
        std::vector<fs::path> visible;
        std::vector<fs::path> hidden;
        for (const fs::path& file : files)
            (isHiddenPath(file) ? hidden : visible).push_back(file);
        std::vector<fs::path> visibleFolders;
        std::copy_if(folders.begin(), folders.end(), std::back_inserter(visibleFolders),
                     [](const fs::path& folder) { return !isHiddenPath(folder); });
        std::shuffle(visible.begin(), visible.end(), random);
        std::size_t next = 0;
        for (int i = 0; i < 25; ++i, ++next)
            addFile(visible[next], "edited " + std::to_string(i), randomTime());
        // Content as it was, time a nanosecond off: a comparison of whole seconds would not see it.
        for (int i = 0; i < 5; ++i, ++next) {
            timespec modified = statusOf(live() / visible[next]).st_mtim;
            modified.tv_nsec += modified.tv_nsec == 999999999 ? -1 : 1;
            setModified(live() / visible[next], modified);
        }
        for (int i = 0; i < 20; ++i, ++next)
            ASSERT_TRUE(fs::remove(live() / visible[next]));
        ASSERT_GE(hidden.size(), 10u);
        for (std::size_t i = 0; i < 10; ++i)
            ASSERT_TRUE(fs::remove(live() / hidden[i])); // the copy brings these back
        for (int i = 0; i < 15; ++i)
            addFile(pick(visibleFolders) / ("added-" + std::to_string(i) + ".txt"), randomContent(),
                    randomTime());
        addFile("New \xe2\x9c\x93/nested/added.txt", "added", randomTime());
        addFile(pick(folders) / ".DS_Store", "new clutter", randomTime());

        removeTree(live() / "Swap" / "folder that becomes a file");
        addFile("Swap/folder that becomes a file", "now a file", randomTime());
        ASSERT_TRUE(fs::remove(live() / "Swap" / "file that becomes a folder"));
        addFile("Swap/file that becomes a folder/now.txt", "now a folder", randomTime());
        removeTree(live() / "Gone");
        makeSymlink(outside().native(), live() / "Gone");
        setModified(live() / "Gone", randomTime()); // never the clock tick the backup's folder may share

        ASSERT_TRUE(fs::remove(live() / links[0]));
        makeSymlink("retargeted", live() / links[0]);
        setModified(live() / links[0], randomTime());

        const fs::path kept = visibleFolders.back(); // a folder the restore keeps
        for (const fs::path& file :
             {fs::path(".added hidden"), kept / ".added hidden too",
              fs::path(".added hidden folder/visible.txt"), fs::path(".added hidden folder/sub/deeper.txt")})
            addFile(file, file.filename().native(), randomTime());
        hiddenAdditions = {".added hidden",
                           (kept / ".added hidden too").native(),
                           ".added hidden folder",
                           ".added hidden folder/visible.txt",
                           ".added hidden folder/sub",
                           ".added hidden folder/sub/deeper.txt"};
    }

    TestHome home;
    std::mt19937 random{20261122};
    std::vector<fs::path> folders;
    std::vector<fs::path> files;
    std::vector<fs::path> links;
    std::set<std::string> hiddenAdditions;
};

TEST_F(RestoreRoundTripTest, RestoredFolderMatchesTheBackupByRsyncExceptHiddenAdditionsAndNothingIsLost)
{
    if (std::system("command -v rsync >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "rsync is not installed (scripts/bootstrap installs it)";
    writeFile(outside() / "victim.txt", "outside the live folder");
    const std::string outsideBefore = describe(outside() / "victim.txt");
    buildLiveTree();
    std::atomic<bool> canceled{false};
    const CopyOutcome backedUp =
        DirectoryCopier::copyDirectoryAtPath(live(), backup(), canceled, [](const fs::path&) {});
    ASSERT_TRUE(backedUp.finished());
    ASSERT_TRUE(backedUp.notCopied.empty());
    changeLiveTree();
    std::map<std::string, std::string> hiddenBefore;
    for (const std::string& item : hiddenAdditions)
        hiddenBefore[item] = describe(live() / item);
    std::set<fs::path> foldersBefore;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(live())) {
        if (entry.is_directory() && !entry.is_symlink())
            foldersBefore.insert(entry.path().lexically_relative(live()));
    }

    // Every item but folders, as it is before the restore: each must be in the live folder or the Trash
    // afterwards, unchanged.
    std::map<fs::path, std::string> itemsBefore;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(live())) {
        if (!entry.is_directory() || entry.is_symlink())
            itemsBefore[entry.path().lexically_relative(live())] = describe(entry.path());
    }

    Trash trash(home.dataHome());
    const PruneOutcome pruned =
        RestorePreparation::pruneLiveFolder(live(), backup(), canceled, {.trash = &trash, .neverPrune = {}});
    EXPECT_TRUE(pruned.backupReadable);
    EXPECT_TRUE(pruned.kept.empty());
    EXPECT_TRUE(pruned.notRemoved.empty());
    EXPECT_TRUE(pruned.removedForGood.empty());
    const fs::path trashFolder = home.dataHome() / "Trash";
    std::int64_t entries = 0;
    std::map<fs::path, std::string> itemsTrashed;
    for (const fs::directory_entry& info : fs::directory_iterator(trashFolder / "info")) {
        ++entries;
        const fs::path original = originalPathIn(info.path()).lexically_relative(live());
        const fs::path trashed = trashFolder / "files" / info.path().stem();
        itemsTrashed[original] = describe(trashed);
        if (fs::is_directory(fs::symlink_status(trashed))) {
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(trashed))
                itemsTrashed[original / entry.path().lexically_relative(trashed)] = describe(entry.path());
        }
    }
    EXPECT_EQ(entries, pruned.trashed);
    // The edited files, those a nanosecond off and the added ones; the new folder, the two swapped
    // items, the link in place of a folder and the retargeted link.
    EXPECT_EQ(pruned.trashed, 25 + 5 + 15 + 1 + 2 + 2);
    for (const auto& [item, description] : itemsBefore) {
        if (fs::exists(fs::symlink_status(live() / item)))
            EXPECT_EQ(describe(live() / item), description) << item;
        else
            EXPECT_EQ(itemsTrashed[item], description)
                << item << " is neither in the live folder nor in the Trash";
    }
    const RestoreTotals totals = RestorePreparation::measureFilesToCopy(backup(), live(), canceled);
    int copiedCount = 0;
    std::uint64_t copiedSize = 0;
    const CopyOutcome restored =
        DirectoryCopier::copyDirectoryAtPath(backup(), live(), canceled, [&](const fs::path& source) {
            ++copiedCount;
            copiedSize += static_cast<std::uint64_t>(statusOf(source).st_size);
        });
    EXPECT_TRUE(restored.finished());
    EXPECT_TRUE(restored.notCopied.empty());

    EXPECT_EQ(totals.totalCount, copiedCount) << "the count must be what the copy creates";
    EXPECT_EQ(totals.totalSize, copiedSize);
    EXPECT_GT(copiedCount, 50);

    int exitCode = 0;
    std::set<std::string> deletions;
    for (const std::string& line : rsyncDifferences(backup(), live(), exitCode)) {
        if (!line.starts_with("*deleting")) {
            ADD_FAILURE() << "rsync: " << line;
            continue;
        }
        std::string name = line.substr(line.find_first_not_of(' ', 9));
        if (name.ends_with('/'))
            name.pop_back();
        deletions.insert(name);
    }
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(deletions, hiddenAdditions) << "rsync must see exactly the hidden items added since";

    for (const auto& [item, description] : hiddenBefore)
        EXPECT_EQ(describe(live() / item), description) << item;
    EXPECT_EQ(describe(outside() / "victim.txt"), outsideBefore);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(backup())) {
        const fs::path relative = entry.path().lexically_relative(backup());
        if (entry.is_directory() && !entry.is_symlink() && foldersBefore.contains(relative))
            continue; // kept, with its own time
        const timespec restoredTime = statusOf(live() / relative).st_mtim;
        const timespec originalTime = statusOf(entry.path()).st_mtim;
        EXPECT_EQ(std::pair(restoredTime.tv_sec, restoredTime.tv_nsec),
                  std::pair(originalTime.tv_sec, originalTime.tv_nsec))
            << relative;
    }
}

} // namespace
