#pragma once

#include "Helpers/FsError.h"

#include <filesystem>
#include <optional>
#include <vector>

// The items a backup could not copy, kept in a file beside its folder ("<folder>.not-copied" in the
// backup root), never inside it: the folder must hold only what was copied, and a restore must be able
// to tell "the backup never held this" from "the live folder gained this since".
//
// One line per item: errno, the failed call and the path relative to the backup folder, separated by
// tabs. Paths are bytes as on disk; only '%', tab, newline and other control bytes are written as %XX,
// so a name that is not UTF-8 comes back exactly.
class NotCopiedList {
public:
    NotCopiedList() = delete;

    static std::filesystem::path pathFor(const std::filesystem::path& backupFolder);

    // Replaces the list atomically (a temporary file renamed over it, synced first).
    [[nodiscard]] static std::optional<FsError> write(const std::filesystem::path& backupFolder,
                                                      const std::vector<FsError>& items);
    // Empty when the backup has no list, or when it cannot be read; lines that make no sense are left out.
    static std::vector<FsError> read(const std::filesystem::path& backupFolder);
    static void remove(const std::filesystem::path& backupFolder);
};
