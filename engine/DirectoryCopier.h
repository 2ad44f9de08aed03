#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>

// Copies a folder tree into another folder, for a backup and for a restore, on a background thread.
//
// - Entries are taken in the order the file system lists them, depth first. A ".DS_Store" entry is left
//   out (a folder of that name is not entered). Folders are entered whether or not the destination
//   already has them; any other item that already exists at the destination (a dangling link included)
//   is left as it is, never overwritten, replaced or compared. Alias files are left out.
// - Every item that is not a folder goes through ItemCopier. A failed copy is passed over like a finished
//   one; only after a copy attempt is `cancelRequested` looked at: when set, the walk stops at once and
//   answers false, otherwise `progress` gets the source path of the item.
// - A folder that cannot be listed counts as empty; a destination folder that cannot be created or opened
//   makes every copy into it fail, which is passed over. The walk answers true once every entry is done.
// - A destination folder the walk creates gets the source folder's permission bits, extended attributes
//   and times when the walk leaves it, so that the copy matches its original; folders that were there
//   already keep their own.
// - Nothing is opened by path below the two roots: folders are opened relative to their parent's
//   descriptor without following links, so trees deeper than PATH_MAX are copied and a link swapped in
//   for a folder is never followed (at the roots themselves a link is followed).
// - Memory stays flat with the number of files: each folder on the current path keeps its descriptors and
//   the unread part of one listing chunk. At most kMaxHeldLevels folders keep their descriptors; a
//   shallower one gives them up after reading the rest of its listing into memory, and is reopened
//   through ".." (checked by device and inode) when the walk comes back to it. Only trees deeper than
//   that hold listings beyond one chunk per folder, and only there can coming back fail: a source folder
//   moved away meanwhile has the rest of its entries passed over, and a destination folder that cannot
//   be reached again (moved, or its sub-folder had no destination folder to come back through) makes the
//   remaining copies into it fail.
class DirectoryCopier {
public:
    DirectoryCopier() = delete;

    using Progress = std::function<void(const std::filesystem::path& copiedSource)>;

    static constexpr std::size_t kMaxHeldLevels = 64;

    static bool copyDirectoryAtPath(const std::filesystem::path& source,
                                    const std::filesystem::path& destination,
                                    const std::atomic<bool>& cancelRequested, const Progress& progress);
};
