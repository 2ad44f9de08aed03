// A back-up and restore round trip on a varied tree, judged item by item by lstat and a read of every file
// rather than by the code under test.
#include "engine/DirectoryCopier.h"
#include "engine/RestorePreparation.h"
#include "engine/Trash.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

bool isHiddenPath(const fs::path& relative)
{
    return std::any_of(relative.begin(), relative.end(),
                       [](const fs::path& c) { return c.native().starts_with('.'); });
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

    template<typename T>
    const T& pick(const std::vector<T>& items)
    {
        return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(random)];
    }

    void addFile(const fs::path& relative, std::string_view content = {})
    {
        std::string bytes(content);
        for (int size = content.empty() ? std::uniform_int_distribution<int>(0, 6000)(random) : 0; size > 0;
             --size)
            bytes += static_cast<char>(random());
        writeFile(live() / relative, bytes);
        setTimes(live() / relative, randomTime());
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
            addFile(files.back());
            ::chmod((live() / files.back()).c_str(), i % 7 == 0 ? 0600 : (i % 11 == 0 ? 0755 : 0644));
        }
        for (std::size_t i = 0; i < folders.size(); i += 3)
            addFile(folders[i] / ".DS_Store", "clutter");
        const fs::path sibling =
            *std::find_if(files.begin(), files.end(), [](auto& f) { return !isHiddenPath(f); });
        links = {sibling.parent_path() / "to-sibling", "to-outside", folders[1] / "dangling"};
        for (const auto& [link, target] :
             {std::pair{links[0], sibling.filename()}, std::pair{links[1], outside()},
              std::pair{links[2], fs::path("nowhere/missing")}}) {
            makeSymlink(target.native(), live() / link);
            setTimes(live() / link, randomTime());
        }
        for (auto it = folders.rbegin(); it != folders.rend(); ++it)
            setTimes(live() / *it, randomTime());
    }

    // Everything a user may do between the backup and the restore, except editing hidden files.
    void changeLiveTree()
    {
        std::vector<fs::path> visible;
        std::vector<fs::path> hidden;
        for (const fs::path& file : files)
            (isHiddenPath(file) ? hidden : visible).push_back(file);
        std::erase_if(folders, isHiddenPath);
        std::shuffle(visible.begin(), visible.end(), random);
        std::size_t next = 0;
        for (int i = 0; i < 25; ++i, ++next)
            addFile(visible[next], "edited " + std::to_string(i));
        // Content as it was, time a nanosecond off: a comparison of whole seconds would not see it.
        for (int i = 0; i < 5; ++i, ++next) {
            struct stat status {};
            ASSERT_EQ(::lstat((live() / visible[next]).c_str(), &status), 0);
            status.st_mtim.tv_nsec += status.st_mtim.tv_nsec == 999999999 ? -1 : 1;
            setTimes(live() / visible[next], status.st_mtim);
        }
        for (int i = 0; i < 20; ++i, ++next)
            ASSERT_TRUE(fs::remove(live() / visible[next]));
        ASSERT_GE(hidden.size(), 10u);
        for (std::size_t i = 0; i < 10; ++i)
            ASSERT_TRUE(fs::remove(live() / hidden[i])); // the copy brings these back
        for (int i = 0; i < 15; ++i)
            addFile(pick(folders) / ("added-" + std::to_string(i) + ".txt"));
        addFile("New \xe2\x9c\x93/nested/added.txt", "added");
        addFile(pick(folders) / ".DS_Store", "new clutter");
        ASSERT_TRUE(fs::remove(live() / links[0]));
        makeSymlink("retargeted", live() / links[0]);
        setTimes(live() / links[0], randomTime());

        const fs::path kept = folders.back(); // a folder the restore keeps
        for (const fs::path& file :
             {fs::path(".added hidden"), kept / ".added hidden too",
              fs::path(".added hidden folder/visible.txt"), fs::path(".added hidden folder/sub/deeper.txt")})
            addFile(file, "hidden");
        hiddenAdditions.insert({".added hidden", (kept / ".added hidden too").native(),
                                ".added hidden folder", ".added hidden folder/visible.txt",
                                ".added hidden folder/sub", ".added hidden folder/sub/deeper.txt"});
    }

    TestHome home;
    std::mt19937 random{20261122};
    std::vector<fs::path> folders;
    std::vector<fs::path> files;
    std::vector<fs::path> links;
    std::set<std::string> hiddenAdditions;
};

TEST_F(RestoreRoundTripTest, RestoredFolderMatchesTheBackupExceptHiddenAdditionsAndNothingIsLost)
{
    writeFile(outside() / "victim.txt", "outside the live folder");
    buildLiveTree();
    std::atomic<bool> canceled{false};
    const CopyOutcome backedUp =
        DirectoryCopier::copyDirectoryAtPath(live(), backup(), canceled, [](const fs::path&) {});
    ASSERT_TRUE(backedUp.finished() && backedUp.notCopied.empty());
    changeLiveTree();
    // Every item as it is before the restore: each that is not a folder must be in the live folder or the
    // Trash afterwards, unchanged; the folders that stay keep their own times.
    const std::map<std::string, std::string> before = snapshot(live());

    Trash trash(home.dataHome());
    const PruneOutcome pruned =
        RestorePreparation::pruneLiveFolder(live(), backup(), canceled, {.trash = &trash, .neverPrune = {}});
    EXPECT_TRUE(pruned.backupReadable && pruned.kept.empty() && pruned.notRemoved.empty() &&
                pruned.removedForGood.empty());
    // The edited files, those a nanosecond off and the added ones, the new folder and the retargeted link.
    EXPECT_EQ(pruned.trashed, 25 + 5 + 15 + 1 + 1);
    const fs::path trashFolder = home.dataHome() / "Trash";
    std::map<std::string, std::string> trashed;
    for (const fs::directory_entry& info : fs::directory_iterator(trashFolder / "info")) {
        const fs::path original = fs::path(trashedOriginal(info.path())).lexically_relative(live());
        const fs::path item = trashFolder / "files" / info.path().stem();
        trashed[original.native()] = describe(item);
        if (fs::is_directory(fs::symlink_status(item))) {
            for (const auto& [inside, description] : snapshot(item))
                trashed[(original / inside).native()] = description;
        }
    }
    EXPECT_EQ(trashed.size(), 25 + 5 + 15 + 1 + 1 + 2u);
    for (const auto& [item, description] : before) {
        if (description.starts_with("folder"))
            continue;
        const std::string now = describe(live() / item);
        EXPECT_EQ(now == "missing" ? trashed[item] : now, description) << item;
    }

    const RestoreTotals totals = RestorePreparation::measureFilesToCopy(backup(), live(), canceled);
    int copiedCount = 0;
    std::uint64_t copiedSize = 0;
    const CopyOutcome restored =
        DirectoryCopier::copyDirectoryAtPath(backup(), live(), canceled, [&](const fs::path& source) {
            ++copiedCount;
            copiedSize +=
                fs::is_symlink(source) ? fs::read_symlink(source).native().size() : fs::file_size(source);
        });
    EXPECT_TRUE(restored.finished() && restored.notCopied.empty());
    EXPECT_EQ(totals.totalCount, copiedCount) << "the count must be what the copy creates";
    EXPECT_EQ(totals.totalSize, copiedSize);
    EXPECT_GT(copiedCount, 50);

    // The live folder now holds what the backup holds, with the same kind, permissions, time to the
    // nanosecond and content (a folder that stayed keeps its own time), and besides only the clutter and
    // the hidden items added since.
    std::map<std::string, std::string> restoredTree = snapshot(live());
    for (const auto& [item, description] : snapshot(backup())) {
        const std::string restoredItem =
            restoredTree.contains(item) ? restoredTree.extract(item).mapped() : "missing";
        const bool keptFolder = before.contains(item) && description.starts_with("folder");
        EXPECT_EQ(restoredItem.substr(0, keptFolder ? restoredItem.rfind(' ') : std::string::npos),
                  description.substr(0, keptFolder ? description.rfind(' ') : std::string::npos))
            << item;
    }
    std::set<std::string> extra;
    for (const auto& [item, description] : restoredTree) {
        if (!fs::path(item).filename().native().starts_with(".DS_Store"))
            extra.insert(item);
    }
    EXPECT_EQ(extra, hiddenAdditions);
    EXPECT_EQ(readFile(outside() / "victim.txt"), "outside the live folder");
}

} // namespace
