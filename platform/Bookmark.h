#pragma once

#include <filesystem>
#include <optional>
#include <string>

// A persistent, opaque reference to a folder: its path together with its device and inode. It resolves
// back to the path only while that very folder is still there; a folder that was removed (or replaced by
// another one under the same name) makes resolution fail.
class Bookmark {
public:
    static std::optional<std::string> create(const std::filesystem::path& folder);
    static std::optional<std::filesystem::path> resolve(const std::string& data);
};
