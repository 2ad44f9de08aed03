#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>

// What a restore has to copy back: the files of the backup that the live folder lacks.
struct RestoreTotals {
    std::uint64_t totalSize = 0;
    std::int32_t totalCount = 0; // wraps like the copier's counters
};

// The preparation of a restore, on a background thread, before anything is copied. Both passes test
// the cancel flag before every item and stop at once when it is set.
class RestorePreparation {
public:
    RestorePreparation() = delete;

    // Makes the live folder a subset of the backup: every item the backup does not hold the same way is
    // removed. Hidden items (names beginning with ".") are never touched, nor is anything inside a
    // hidden folder. A folder stays when the backup has a folder there; a file (or link, or other item)
    // stays only when the backup has an item there with the same modification time, to the nanosecond.
    // Links are removed as links: nothing outside the live folder is ever reached. Failed removals are
    // passed over.
    static void pruneLiveFolder(const std::filesystem::path& live, const std::filesystem::path& backup,
                                const std::atomic<bool>& canceled);

    // Counts the files the copy back will create: every non-folder item of the backup, hidden ones
    // included but ".DS_Store" and aliases not, with nothing at its place in the live folder.
    static RestoreTotals measureFilesToCopy(const std::filesystem::path& backup, const std::filesystem::path& live,
                                            const std::atomic<bool>& canceled);
};
