#pragma once

#include "engine/CopyOutcome.h"

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>

class PreviousBackup;

// Copies a folder tree into another folder, for a backup and for a restore, on a background thread.
//
// - Entries are taken in the order the file system lists them, depth first. A ".DS_Store" entry is left
//   out (a folder of that name is not entered). Folders are entered whether or not the destination
//   already has them; any other item that already exists at the destination (a dangling link included)
//   is left as it is, never overwritten, replaced or compared, and is no failure. Alias files are left
//   out.
// - Every item that is not a folder goes through ItemCopier. One copy that fails must not cost the user
//   the rest of the backup, so the walk goes on; but a backup that silently lacks a document is worse
//   than one that says so, so every item left out lands in CopyOutcome::notCopied. Items that vanished
//   from the source since they were listed are not missing from anything and are not listed; devices and
//   sockets, which are never copied, are.
// - Only after a copy attempt is `cancelRequested` looked at: when set, the walk stops at once and ends
//   Cancelled, otherwise `progress` gets the source path of the item, copied or not.
// - A full disk (ENOSPC, EDQUOT) ends the walk at once as OutOfSpace: every further copy would fail the
//   same way and only fill the list. The caller removes the incomplete copy.
// - `abandonRequested` is the program quitting: it is looked at before each entry and, through
//   ItemCopier, within a large file, so that a quit never waits for the rest of a copy. The item being
//   copied is removed and the walk ends Cancelled.
// - A folder the walk cannot go into is one entry standing for its subtree: a source folder that cannot
//   be opened or whose listing breaks off, a destination folder that cannot be created or opened. The
//   subtree of the latter is not walked at all, since nothing in it could be copied anyway.
// - A destination folder the walk creates gets the source folder's permission bits, extended attributes
//   and times when the walk leaves it, so that the copy matches its original; folders that were there
//   already keep their own. Attributes that cannot be given are listed too. A destination folder is
//   created even when its source folder cannot be opened, so that the copy shows where the hole is.
// - A regular file with further names in the source becomes a hard link to the copy of the first name
//   met (HardLinkGroups). Given a previous backup, an unchanged file becomes a hard link to that backup's
//   copy (PreviousBackup). Either way the item counts and reports progress as a copied one, and when the
//   link cannot be made the file is copied.
// - Nothing is opened by path below the two roots: folders are opened relative to their parent's
//   descriptor without following links, so trees deeper than PATH_MAX are copied and a link swapped in
//   for a folder is never followed (at the roots themselves a link is followed).
// - Memory stays flat with the number of files: each folder on the current path keeps its descriptors and
//   the unread part of one listing chunk. At most kMaxHeldLevels folders keep their descriptors; a
//   shallower one gives them up after reading the rest of its listing into memory, and is reopened
//   through ".." (checked by device and inode) when the walk comes back to it. Only trees deeper than
//   that hold listings beyond one chunk per folder, and only there can coming back fail: a folder that
//   cannot be reached again (moved meanwhile) is listed and the rest of its entries passed over.
class DirectoryCopier {
public:
    DirectoryCopier() = delete;

    using Progress = std::function<void(const std::filesystem::path& copiedSource)>;

    static constexpr std::size_t kMaxHeldLevels = 64;

    static CopyOutcome copyDirectoryAtPath(const std::filesystem::path& source,
                                           const std::filesystem::path& destination,
                                           const std::atomic<bool>& cancelRequested, const Progress& progress,
                                           const std::atomic<bool>* abandonRequested = nullptr,
                                           PreviousBackup* previous = nullptr);
};
