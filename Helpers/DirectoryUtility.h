#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

// Size and file count of a folder tree, as the backup list and the inspector show them.
struct FolderMeasure {
    std::uint64_t totalSize = 0;      // bytes of every counted item, st_size of the item itself
    std::int32_t totalFilesCount = 0; // wraps past 2^31 - 1, like the count it mirrors
};

// File-manager utilities: the folder measure and the real home folder.
class DirectoryUtility {
public:
    // Walks the whole tree (hidden entries included) and counts every item that is not a folder:
    // regular files, symbolic links (never followed) and special files, except items named ".DS_Store"
    // and alias files. A missing or unreadable folder measures 0 bytes and 0 files.
    //
    // `stopCounting` is the counting pass of a backup being cancelled: once set, the walk counts nothing
    // more but still runs to its end, as the pass it mirrors does. `abandon` is the program quitting: the
    // walk, every thread of it, stops at once and what it answers means nothing.
    static FolderMeasure sizeForDirectoryAtPath(const std::filesystem::path& path,
                                                const std::atomic<bool>* stopCounting = nullptr,
                                                const std::atomic<bool>* abandon = nullptr);

    // Finder alias files do not exist on this platform, so nothing is one.
    static bool isAliasFile(int parentFd, const char* name);
};
