#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>

// What one backup costs on disk, in allocated blocks (holes take none). Backups share unchanged files
// through hard links, so the two figures differ:
// - onItsOwn: every block the backup's items use, each file counted once however many names it has:
//   what the backup would take were it the only one.
// - freedByDeleting: the blocks of the folders and of the files all of whose names lie inside this
//   backup: what deleting it gives back. A file another backup shares stays.
struct BackupSpace {
    std::uint64_t onItsOwn = 0;
    std::uint64_t freedByDeleting = 0;
    // False when the walk was stopped, or the folder could not be read: the figures are then partial.
    bool complete = true;

    // Walks the backup folder without following links; `stop` ends the walk early.
    static BackupSpace measure(const std::filesystem::path& backupFolder, const std::atomic<bool>* stop);
};
