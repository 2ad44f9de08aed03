#pragma once

#include "engine/FileIdentity.h"

#include <cstddef>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unordered_map>

// Files that the source holds under more than one name: the first name met is copied, and every later
// one becomes a hard link to that copy, so the copy holds one file under those names as the original
// does (a restore brings them back linked the same way).
//
// - Only the copy's own names are linked to: the first copy is found again by its path below the
//   destination root, and the link is checked to be that very file afterwards; anything else (a path
//   longer than PATH_MAX, a copy moved or replaced meanwhile) leaves the name to be copied as usual.
// - A group is forgotten once all its names were met. Memory holds one entry per file with further names
//   still to come, at most kMaxRemembered: beyond that, further names are copied instead of linked.
//
// One object serves one copy on one thread.
class HardLinkGroups {
public:
    static constexpr std::size_t kMaxRemembered = std::size_t(1) << 20;

    explicit HardLinkGroups(std::filesystem::path destinationRoot);

    // Links `name` to the copy made earlier of the same source file, if there is one.
    bool linkToEarlierCopy(const struct stat& source, int destinationParentFd, const char* name);
    // The source file under `relativePath` (relative to both roots) has just been copied to `name`.
    void remember(const struct stat& source, int destinationParentFd, const char* name,
                  std::string relativePath);

private:
    struct Copy {
        std::string relativePath;
        ino_t inode;
        nlink_t namesToCome;
    };

    std::filesystem::path m_destinationRoot;
    std::unordered_map<FileIdentity, Copy, FileIdentity::Hash> m_copies;
};
