#pragma once

#include "FsError.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

// One entry met by the walk. Valid only during the visitor call.
struct WalkEntry {
    int parentFd;       // open descriptor of the folder that holds the entry
    const char* name;   // the entry's own name: raw bytes, not necessarily UTF-8
    bool isDirectory;   // the entry itself, never a symbolic link's target
    unsigned char type; // the entry's d_type (DT_DIR, DT_LNK, DT_REG, ...), never DT_UNKNOWN
    int depth;          // 1 for entries directly inside the root
    // The holding folder's path relative to the root ("" for the root itself, else "a/b"), bytes as
    // they are on disk.
    const std::string& relativeFolder;

    std::filesystem::path relativePath() const
    {
        return relativeFolder.empty() ? std::filesystem::path(name)
                                      : std::filesystem::path(relativeFolder) / name;
    }
};

enum class WalkAction { Continue, SkipDescendants, Stop };

// Depth-first walk of a folder tree over raw byte names with openat/fdopendir/fstatat.
//
// - Symbolic links are reported as entries and never followed (only the root itself may be a link).
// - The walk keeps its own stack instead of recursing, so depth is bounded by memory, not by the call
//   stack, and no path is ever built to open a folder: trees deeper than PATH_MAX are walked.
// - At most kMaxHeldDescriptors folder descriptors stay open; shallower ones are closed and reopened
//   through ".." (checked by device and inode) when the walk comes back to them.
// - Entries that vanish, folders that cannot be opened and folders replaced mid-walk are reported to the
//   error handler (if any) and passed over; the walk goes on.
// - Memory holds the pending sub-folder names of the folders on the current path, never one entry per
//   file.
class DirectoryWalker {
public:
    using Visitor = std::function<WalkAction(const WalkEntry&)>;
    using ErrorHandler = std::function<void(const FsError&)>;

    // Told about each folder around the reading of its entries, for callers that must act on the open
    // folder first (a watch placed before the reading sees every entry added after it).
    class FolderObserver {
    public:
        virtual ~FolderObserver() = default;
        // `fd` is the folder, open and not read yet. False leaves it unread and its sub-folders unvisited.
        virtual bool enterFolder(int fd, const std::string& relativeFolder) = 0;
        // Every entry of the folder has been visited; its sub-folders come next.
        virtual void leaveFolder(const std::string& relativeFolder) = 0;
    };

    static constexpr std::size_t kMaxHeldDescriptors = 128;

    // Returns false when the root itself cannot be opened as a folder (the error handler is told why).
    static bool walk(const std::filesystem::path& root, const Visitor& visit,
                     const ErrorHandler& onError = {});

    // Walks the folder called `name` (one name, no "/") inside the open folder `parentFd`. It is never
    // taken through a symbolic link: one found there is refused like a file. Errors name paths relative
    // to `parentFd`.
    static bool walk(int parentFd, const std::filesystem::path& name, const Visitor& visit,
                     const ErrorHandler& onError = {});

    // Walks the folder already open at `folderFd`, which the walk takes over and closes. Errors name paths
    // under `label`.
    static void walkOpenFolder(int folderFd, const std::filesystem::path& label, const Visitor& visit,
                               const ErrorHandler& onError, FolderObserver* observer);
};
