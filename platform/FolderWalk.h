#pragma once

#include <string>

// Depth-first walk over the folders of a tree for the event streams, which need each folder open, with
// its path, before its entries are read: a watch placed then sees every entry added after the reading.
//
// - Paths are raw bytes. Only folders get a path; entries get their name and their d_type.
// - The walking itself is DirectoryWalker's: below the root no symbolic link is followed, trees deeper
//   than PATH_MAX are walked, and few descriptors are held. This adds full paths, a choice about a link at
//   the root, and roots longer than PATH_MAX.
class FolderWalk {
public:
    class Visitor {
    public:
        virtual ~Visitor() = default;
        // `fd` is the folder, open and not read yet. False leaves it unread and its sub-folders unvisited.
        virtual bool enterFolder(int fd, const std::string& path) = 0;
        // One entry of the folder entered last; `type` is a d_type, never DT_UNKNOWN.
        virtual void visitEntry(int folderFd, const char* name, unsigned char type) = 0;
        // Every entry of the folder entered last has been visited; its sub-folders come next.
        virtual void leaveFolder(const std::string& path) = 0;
        // A folder that could not be opened or read to the end.
        virtual void folderFailed(const std::string& path, int error) = 0;
    };

    // A link at `root` itself is followed only when `followRootLink` says so. False when the root cannot
    // be opened as a folder (the visitor has been told why).
    static bool walk(const std::string& root, Visitor& visitor, bool followRootLink);

    // Opens a folder by its path, even one longer than PATH_MAX; -1 and errno on failure.
    static int openFolder(const std::string& path, bool followLink);
};
