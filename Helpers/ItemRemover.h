#pragma once

#include "FsError.h"

#include <filesystem>
#include <optional>
#include <string>

// Removes a file, a link or a whole folder tree. Symbolic links are removed, never followed; folders
// are opened relative to their parent's descriptor, so a link swapped in for a folder mid-way is removed
// as a link, and trees deeper than PATH_MAX go too. It keeps going past items it cannot remove and
// answers the first failure.
class ItemRemover {
public:
    ItemRemover() = delete;
    static std::optional<FsError> removeItemAtPath(const std::filesystem::path& path);
    // The entry `name` of the folder open as `parentFd`, for walks that never build paths.
    static std::optional<FsError> removeItemAt(int parentFd, const std::string& name);
};
