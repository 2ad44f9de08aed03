#pragma once

#include "Helpers/FsError.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

class Trash;

// What a restore has to copy back: the files of the backup that the live folder lacks.
struct RestoreTotals {
    std::uint64_t totalSize = 0;
    std::int32_t totalCount = 0; // wraps like the copier's counters
};

// One item a restore would change, relative to the live folder; a folder stands for everything in it.
struct ComparedItem {
    std::string path;
    std::uint64_t size = 0; // st_size of a file or link; 0 for a folder
    bool isFolder = false;
};

// What a restore of a backup would do to the live folder now, by the very rules the restore follows.
struct Comparison {
    std::vector<ComparedItem> added;   // in the live folder only: would go to the Trash
    std::vector<ComparedItem> changed; // differ from the backup's: would go to the Trash and come back
    std::vector<ComparedItem> removed; // in the backup only: would be copied back
    bool backupReadable = true;        // false: the backup could not be read, and nothing was compared
};

// How a restore's prune treats what goes and what it must never touch.
struct PruneOptions {
    Trash* trash = nullptr; // null: items are removed for good
    // Nothing is touched: every item that would go is listed in PruneOutcome::wouldGo instead.
    bool listOnly = false;
    // Paths relative to the backup folder that it never held (its not-copied list): kept, with
    // everything inside them, and so are the folders that hold them.
    std::vector<std::filesystem::path> neverPrune;
};

// What the prune did. Paths are relative to the live folder, bytes as on disk.
struct PruneOutcome {
    // False when the backup folder could not be opened and listed: nothing was touched.
    bool backupReadable = true;
    // Items moved to the Trash; a folder counts once.
    std::int64_t trashed = 0;
    // No trash could be used on the item's volume: removed instead.
    std::vector<FsError> removedForGood;
    // The backup could not be checked for them: the lookup's call and errno.
    std::vector<FsError> kept;
    // Should have gone but could not be moved or removed.
    std::vector<FsError> notRemoved;
    // With PruneOptions::listOnly: what would have gone, and whether the backup has an item at its place.
    std::vector<std::pair<ComparedItem, bool>> wouldGo;
};

// The preparation of a restore, on a background thread, before anything is copied. Both passes test
// the cancel flag before every item and stop at once when it is set.
class RestorePreparation {
public:
    RestorePreparation() = delete;

    // Makes the live folder a subset of the backup: every item the backup does not hold the same way
    // goes to the Trash (or is removed, without one). A folder stays when the backup has a folder there;
    // a file (or link, or other item) stays only when the backup has an item there with the same
    // modification time, to the nanosecond. An item goes only when the backup is known to lack it: a
    // lookup that fails for any other reason than the item's absence keeps it, a folder with everything
    // in it, and a backup folder that cannot be read at all leaves the live folder as it is. Hidden items
    // (names beginning with ".") are never touched, nor is anything inside a hidden folder. Links go as
    // links: nothing outside the live folder is ever reached. A folder goes whole, as one item.
    static PruneOutcome pruneLiveFolder(const std::filesystem::path& live,
                                        const std::filesystem::path& backup,
                                        const std::atomic<bool>& canceled, const PruneOptions& options = {});

    // Counts the files the copy back will create: every non-folder item of the backup, hidden ones
    // included but ".DS_Store" and aliases not, with nothing at its place in the live folder.
    static RestoreTotals measureFilesToCopy(const std::filesystem::path& backup,
                                            const std::filesystem::path& live,
                                            const std::atomic<bool>& canceled);

    // Both passes without touching anything: what would go and what would come back. Each group is sorted
    // by path. `neverPrune` as for the prune.
    static Comparison compare(const std::filesystem::path& live, const std::filesystem::path& backup,
                              const std::atomic<bool>& canceled,
                              const std::vector<std::filesystem::path>& neverPrune = {});
};
