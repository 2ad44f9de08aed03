#pragma once

#include <cstddef>
#include <functional>
#include <sys/stat.h>

// Which file an item is, whatever its names: its device and inode, usable as a key of an unordered map.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    static FileIdentity of(const struct stat& status) { return {status.st_dev, status.st_ino}; }
    bool operator==(const FileIdentity&) const = default;

    struct Hash {
        std::size_t operator()(const FileIdentity& file) const noexcept
        {
            return std::hash<ino_t>()(file.inode) ^ (std::hash<dev_t>()(file.device) << 1);
        }
    };
};
