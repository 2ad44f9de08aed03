#include "engine/RestorePreparation.h"

#include "engine/DirectoryCopier.h"
#include "engine/Trash.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

// The backup's files carry this time; live files differ from it by as little as one nanosecond or one
// second, so that a comparison of only the seconds or only the nanoseconds shows.
constexpr timespec kBackupTime{1700000000, 123456789};

// Whether the backup was readable, the number trashed, then "list: call path errno" for each item listed,
// sorted: the prune's threads add them in no fixed order.
std::string summary(const PruneOutcome& outcome)
{
    std::vector<std::string> lines;
    for (const auto& [label, list] :
         {std::pair{"kept", &outcome.kept}, std::pair{"not removed", &outcome.notRemoved},
          std::pair{"removed for good", &outcome.removedForGood}}) {
        for (const FsError& item : *list)
            lines.push_back(std::string("; ") + label + ": " + item.operation + " " + item.path.native() +
                            " " + std::to_string(item.code));
    }
    std::sort(lines.begin(), lines.end());
    std::string text = outcome.backupReadable ? "readable, " : "unreadable, ";
    text += std::to_string(outcome.trashed) + " trashed";
    for (const std::string& line : lines)
        text += line;
    return text;
}

class RestorePreparationTest : public ::testing::Test {
protected:
    // Both passes in the program's order; describes what the copy back is expected to create.
    std::string prepare(const PruneOptions& options = {})
    {
        makeFolder(live);
        makeFolder(backup);
        pruned = RestorePreparation::pruneLiveFolder(live, backup, canceled, options);
        const RestoreTotals totals = RestorePreparation::measureFilesToCopy(backup, live, canceled);
        return std::to_string(totals.totalCount) + " files, " + std::to_string(totals.totalSize) + " bytes";
    }

    // The copy back, as the restore runs it; returns the number of files it reported.
    int copyBack()
    {
        int copied = 0;
        const CopyOutcome outcome =
            DirectoryCopier::copyDirectoryAtPath(backup, live, canceled, [&](const fs::path&) { ++copied; });
        EXPECT_TRUE(outcome.finished() && outcome.notCopied.empty());
        return copied;
    }

    TestHome home;
    const fs::path live = home.path() / "Mobile Documents";
    const fs::path backup = home.path() / "backups" / "2026.11.22-10.00.00";
    const fs::path outside = home.path() / "elsewhere";
    std::atomic<bool> canceled{false};
    PruneOutcome pruned;
};

// Names that are not UTF-8 are matched by their bytes.
TEST_F(RestorePreparationTest, ALiveFileStaysOnlyWithTheBackupsTimeToTheNanosecondAndNothingGoesOnCancel)
{
    writeItems(backup, {"\xe9t\xe9/same\xff=backup", "\xe9t\xe9/newer=backup", "\xe9t\xe9/older=backup"},
               kBackupTime);
    writeItems(backup, {"new\x80=12345"}); // at the top: the cancel must stop the count there too
    writeItems(live, {"\xe9t\xe9/same\xff=live", "caf\xe9=not in the backup"}, kBackupTime);
    writeItems(live, {"\xe9t\xe9/newer=edited"}, timespec{kBackupTime.tv_sec, kBackupTime.tv_nsec + 1});
    writeItems(live, {"\xe9t\xe9/older=edited"}, timespec{kBackupTime.tv_sec - 1, kBackupTime.tv_nsec});
    const std::map<std::string, std::string> before = snapshot(live);

    canceled = true;
    EXPECT_EQ(prepare(), "0 files, 0 bytes");
    EXPECT_EQ(snapshot(live), before);

    canceled = false;
    EXPECT_EQ(prepare(), "3 files, 17 bytes");
    EXPECT_EQ(contents(live), (Items{"\xe9t\xe9=/", "\xe9t\xe9/same\xff=live"}));
    EXPECT_EQ(copyBack(), 3);
    EXPECT_EQ(contents(live), (Items{"\xe9t\xe9=/", "\xe9t\xe9/same\xff=live", "\xe9t\xe9/newer=backup",
                                     "\xe9t\xe9/older=backup", "new\x80=12345"}));
}

// Links go as links: nothing they lead to outside the live folder is touched, nor written through later.
TEST_F(RestorePreparationTest, WhatTheBackupLacksOrHoldsAsAnotherKindGoesWholeAndHiddenItemsStay)
{
    writeItems(backup, {"folder to file=backup's file", "Keynote/.hidden=1234567", ".settings=backup's"},
               kBackupTime);
    writeItems(backup, {"file to folder/a.txt=abc", "file to folder/sub/b.txt=defgh", "docs/b.txt=backup's",
                        ".DS_Store=100", "Keynote/.DS_Store=50", "kept/.DS_Store=d"});
    // The same time must not keep a folder for a file, nor a link (which, made within the same clock
    // tick, could carry the backup folder's very time) for a folder.
    writeItems(live, {"folder to file/inside.txt=inside", "file to folder=live file"}, kBackupTime);
    writeItems(live,
               {"kept/extra/inner/deep.txt=deep", "kept/extra/link=-> inner", ".settings=changed since",
                ".only-live=h", ".cache/not-in-backup.txt=not entered", "kept/.lock=hidden in a kept folder",
                "docs=-> " + outside.native(), "portal=-> " + outside.native()});
    for (const char* item : {"folder to file", "docs"})
        setTimes(live / item, kBackupTime);
    writeItems(outside, {"victim.txt=the backup's docs folder lacks this"});
    const Items hidden({".settings=changed since", ".only-live=h", ".cache=/",
                        ".cache/not-in-backup.txt=not entered", "kept=/",
                        "kept/.lock=hidden in a kept folder"});

    EXPECT_EQ(prepare(), "5 files, 36 bytes");
    EXPECT_EQ(contents(live), hidden);
    EXPECT_EQ(copyBack(), 5);
    Items expected({"folder to file=backup's file", "file to folder=/", "file to folder/a.txt=abc",
                    "file to folder/sub=/", "file to folder/sub/b.txt=defgh", "docs=/", "docs/b.txt=backup's",
                    "Keynote=/", "Keynote/.hidden=1234567"});
    expected.insert(hidden.begin(), hidden.end());
    EXPECT_EQ(contents(live), expected);
    EXPECT_EQ(contents(outside), (Items{"victim.txt=the backup's docs folder lacks this"}));
}

// The prune runs as a user the permission bits apply to: root would read the locked folders anyway.
TEST_F(RestorePreparationTest, WhatTheBackupCannotVouchForIsKept)
{
    writeItems(live,
               {"Locked/doc.txt=edited since", "Locked/sub/inner.txt=inner", "Unsearchable/a.txt=edited",
                "Open/extra.txt=not in the backup", "gone.txt=not in the backup"});
    writeItems(backup, {"Locked/doc.txt=backup's", "Unsearchable/a.txt=backup's", "Open=/"});
    ::chmod(home.path().c_str(), 0755);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(live))
        ::lchown(entry.path().c_str(), 65534, 65534);
    ::chown(live.c_str(), 65534, 65534);
    ::chmod((backup / "Locked").c_str(), 0);
    ::chmod((backup / "Unsearchable").c_str(), 0444); // listed, but no item in it can be looked at
    const auto pruneUnprivileged = [&] {
        return runUnprivileged(
            [&] { return summary(RestorePreparation::pruneLiveFolder(live, backup, canceled)); });
    };
    Items expected = contents(live);

    ::chmod(backup.c_str(), 0);
    const std::optional<std::string> unreadable = pruneUnprivileged();
    if (!unreadable)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*unreadable, "unreadable, 0 trashed");
    EXPECT_EQ(contents(live), expected);

    ::chmod(backup.c_str(), 0755);
    const std::string eacces = std::to_string(EACCES);
    EXPECT_EQ(pruneUnprivileged(), "readable, 0 trashed; kept: fstatat Unsearchable/a.txt " + eacces +
                                       "; kept: openat Locked " + eacces);
    expected.erase("Open/extra.txt=not in the backup");
    expected.erase("gone.txt=not in the backup");
    EXPECT_EQ(contents(live), expected);
}

// The Trash's own layout is TrashTest's; here, that the prune uses it, or removes for good without one.
TEST_F(RestorePreparationTest, WhatGoesLandsInTheTrashOnceEachOrIsRemovedForGoodWhenThereIsNone)
{
    Trash trash(home.dataHome());
    writeItems(backup, {"Pages/letter.pages=as backed up"}, kBackupTime);
    writeItems(live, {"Pages/letter.pages=edited since", "Drafts/a.txt=a", "Drafts/sub/b.txt=b"});

    EXPECT_EQ(prepare({.trash = &trash, .neverPrune = {}}), "1 files, 12 bytes");
    EXPECT_EQ(summary(pruned), "readable, 2 trashed");
    EXPECT_EQ(contents(home.dataHome() / "Trash" / "files"),
              (Items{"letter.pages=edited since", "Drafts=/", "Drafts/a.txt=a", "Drafts/sub=/",
                     "Drafts/sub/b.txt=b"}));
    EXPECT_EQ(copyBack(), 1);
    EXPECT_EQ(readFile(live / "Pages" / "letter.pages"), "as backed up");

    writeFile(home.path() / "not a folder", "");
    Trash unusable(home.path() / "not a folder" / "share");
    writeFile(live / "late.txt", "not in the backup");
    EXPECT_EQ(summary(RestorePreparation::pruneLiveFolder(live, backup, canceled,
                                                          {.trash = &unusable, .neverPrune = {}})),
              "readable, 0 trashed; removed for good: mkdir late.txt " + std::to_string(Trash::kNoTrash));
    EXPECT_EQ(describe(live / "late.txt"), "missing");
}

// What the backup never held cannot be put back: it stays, and so do the folders on the way to it,
// while what else they hold is judged as usual.
TEST_F(RestorePreparationTest, ItemsTheBackupNeverHeldStayWithTheirFolders)
{
    // The copier makes the folder it could not read, empty: what is in it must not be judged by that.
    // Keynote/Locked is one the backup could not even make, under one it lacks as well.
    writeItems(backup, {"Numbers=/", "Pages/unreadable=/"});
    const Items kept({"Numbers=/", "Numbers/big.numbers=x", "Pages=/", "Pages/unreadable=/",
                      "Pages/unreadable/doc.pages=y", "Keynote=/", "Keynote/Locked=/",
                      "Keynote/Locked/inner=/", "Keynote/Locked/inner/a.key=z"});
    writeItems(live, kept);
    writeItems(live,
               {"Numbers/other.txt=o", "Keynote/Locked/stray.txt=s", "Keynote/other.txt=o", "Trashed/x=x"});

    EXPECT_EQ(prepare({.neverPrune = {"Numbers/big.numbers", "Pages/unreadable/", "Keynote/Locked/inner"}}),
              "0 files, 0 bytes");
    EXPECT_EQ(summary(pruned), "readable, 0 trashed");
    EXPECT_EQ(contents(live), kept);
}

} // namespace

namespace {

std::string describeGroup(const std::vector<ComparedItem>& group)
{
    std::string text;
    for (const ComparedItem& item : group)
        text += (text.empty() ? "" : ", ") + item.path + (item.isFolder ? "/" : "") + " " +
                std::to_string(item.size);
    return text;
}

TEST_F(RestorePreparationTest, ACompareListsWhatTheRestoreWouldTrashAndBringBackAndTouchesNothing)
{
    writeItems(backup,
               {"same=same", "sub/same=same", "edited=old", "gone=gone", "gone-folder/a=aa",
                "gone-folder/b=bbb", "now-a-folder=file", "never-held=listed"},
               kBackupTime);
    writeItems(live,
               {"same=same", "sub/same=same", "edited=old", "added=new!", "added-folder/x=x",
                "now-a-folder/inner=i", ".hidden=never touched", "never-held=kept"},
               kBackupTime);
    setTimes(live / "edited", {kBackupTime.tv_sec, kBackupTime.tv_nsec + 1});
    const Items before = contents(live);

    const Comparison comparison = RestorePreparation::compare(live, backup, canceled, {"never-held"});

    EXPECT_TRUE(comparison.backupReadable);
    EXPECT_EQ(describeGroup(comparison.added), "added 4, added-folder/ 0");
    EXPECT_EQ(describeGroup(comparison.changed), "edited 3, now-a-folder/ 0");
    EXPECT_EQ(describeGroup(comparison.removed), "gone 4, gone-folder/a 2, gone-folder/b 3");
    EXPECT_EQ(contents(live), before);

    // The restore itself does what the compare said: the added and changed items go, and the removed and
    // changed ones come back.
    EXPECT_EQ(prepare(PruneOptions{nullptr, false, {"never-held"}}), "5 files, 16 bytes");
    EXPECT_EQ(contents(live),
              (Items{".hidden=never touched", "never-held=kept", "same=same", "sub=/", "sub/same=same"}));

    EXPECT_FALSE(RestorePreparation::compare(live, home.path() / "missing", canceled).backupReadable);
}

} // namespace
