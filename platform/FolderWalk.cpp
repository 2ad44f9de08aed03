#include "FolderWalk.h"

#include "Helpers/DirectoryWalker.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Hands the walker's folders to the event streams' visitor with their full paths.
class PathVisitor final : public DirectoryWalker::FolderObserver {
public:
    PathVisitor(FolderWalk::Visitor& visitor, const std::string& root)
        : m_visitor(visitor)
        , m_root(root)
    {
    }

    bool enterFolder(int fd, const std::string& relativeFolder) override
    {
        return m_visitor.enterFolder(fd, pathOf(relativeFolder));
    }

    void leaveFolder(const std::string& relativeFolder) override
    {
        m_visitor.leaveFolder(pathOf(relativeFolder));
    }

    WalkAction visitEntry(const WalkEntry& entry)
    {
        m_visitor.visitEntry(entry.parentFd, entry.name, entry.type);
        return WalkAction::Continue;
    }

    // An entry whose type could not be read is simply passed over: only folders go unwatched.
    void failed(const FsError& error)
    {
        if (error.operation != "fstatat")
            m_visitor.folderFailed(error.path.string(), error.code);
    }

private:
    std::string pathOf(const std::string& relativeFolder) const
    {
        if (relativeFolder.empty())
            return m_root;
        return m_root.back() == '/' ? m_root + relativeFolder : m_root + '/' + relativeFolder;
    }

    FolderWalk::Visitor& m_visitor;
    const std::string& m_root;
};

// The last step of a path too long for one call: earlier steps follow links as any lookup would.
int openLongPath(const std::string& path, int finalFlags)
{
    int fd = AT_FDCWD;
    std::size_t start = 0;
    while (path.size() - start >= PATH_MAX) {
        std::size_t cut = path.rfind('/', start + PATH_MAX - 1);
        if (cut == std::string::npos || cut < start) {
            if (fd != AT_FDCWD)
                ::close(fd);
            errno = ENAMETOOLONG;
            return -1;
        }
        const std::string chunk = cut == start ? std::string("/") : path.substr(start, cut - start);
        const int next = ::openat(fd, chunk.c_str(), kFolderFlags);
        const int error = errno;
        if (fd != AT_FDCWD)
            ::close(fd);
        if (next < 0) {
            errno = error;
            return -1;
        }
        fd = next;
        start = cut + 1;
    }
    const int folder = ::openat(fd, path.c_str() + start, finalFlags);
    const int error = errno;
    if (fd != AT_FDCWD)
        ::close(fd);
    errno = error;
    return folder;
}

} // namespace

int FolderWalk::openFolder(const std::string& path, bool followLink)
{
    const int flags = followLink ? kFolderFlags : kFolderFlags | O_NOFOLLOW;
    if (path.size() < PATH_MAX)
        return ::open(path.c_str(), flags);
    return openLongPath(path, flags);
}

bool FolderWalk::walk(const std::string& root, Visitor& visitor, bool followRootLink)
{
    const int rootFd = openFolder(root, followRootLink);
    if (rootFd < 0) {
        visitor.folderFailed(root, errno);
        return false;
    }
    PathVisitor paths(visitor, root);
    DirectoryWalker::walkOpenFolder(
        rootFd, root, [&](const WalkEntry& entry) { return paths.visitEntry(entry); },
        [&](const FsError& error) { paths.failed(error); }, &paths);
    return true;
}
