#pragma once

#include "Helpers/FsError.h"

#include <filesystem>
#include <optional>
#include <vector>

// A backup folder being made carries a mark beside it ("<folder>.unfinished" in the backup root) from
// before its first file is copied until its record is saved. A crash or a kill in between leaves the
// mark behind, so the next launch can tell a half-made folder from a backup and remove it.
class UnfinishedMark {
public:
    UnfinishedMark() = delete;

    static std::filesystem::path pathFor(const std::filesystem::path& backupFolder);

    // Made durable (the mark and the root's entry synced): a mark lost in a crash would leave the folder
    // behind for good.
    [[nodiscard]] static std::optional<FsError> set(const std::filesystem::path& backupFolder);
    static void clear(const std::filesystem::path& backupFolder);

    // The folders of `root` that carry a mark, whether or not the folder itself is still there.
    static std::vector<std::filesystem::path> markedFolders(const std::filesystem::path& root);

    // For a marked folder at launch: one that a record names keeps its content and only loses the mark;
    // any other is removed with its not-copied list, and the mark last, so that a removal cut short is
    // tried again at the next launch.
    static std::optional<FsError> sweep(const std::filesystem::path& backupFolder, bool recorded);
};
