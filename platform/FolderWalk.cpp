#include "FolderWalk.h"

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

struct Frame {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::size_t pathLength = 0;
    std::vector<std::string> subfolders;
    std::size_t next = 0;
};

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

class Walk {
public:
    Walk(FolderWalk::Visitor& visitor, std::string root)
        : m_visitor(visitor)
        , m_path(std::move(root))
    {
    }

    ~Walk()
    {
        for (Frame& frame : m_stack)
            closeFrame(frame);
    }

    void run(int rootFd)
    {
        push(rootFd);
        while (!m_stack.empty())
            step();
    }

private:
    void step()
    {
        Frame& top = m_stack.back();
        if (top.next >= top.subfolders.size()) {
            pop();
            return;
        }
        const std::string& name = top.subfolders[top.next++];
        m_path.resize(top.pathLength);
        if (m_path.back() != '/')
            m_path += '/';
        m_path += name;
        const int fd = ::openat(top.fd, name.c_str(), kFolderFlags | O_NOFOLLOW);
        if (fd < 0) {
            // Gone, unreadable, or replaced by a file or a link since it was listed.
            m_visitor.folderFailed(m_path, errno);
            return;
        }
        push(fd);
    }

    void push(int fd)
    {
        m_stack.push_back(Frame{fd, 0, 0, m_path.size(), {}, 0});
        ++m_heldDescriptors;
        releaseShallowDescriptors();
        Frame& frame = m_stack.back();
        if (!m_visitor.enterFolder(fd, m_path))
            return;
        readFolder(frame);
        m_visitor.leaveFolder(m_path);
    }

    void readFolder(Frame& frame)
    {
        for (;;) {
            const ssize_t got = ::getdents64(frame.fd, m_buffer.data(), m_buffer.size());
            if (got == 0)
                return;
            if (got < 0) {
                m_visitor.folderFailed(m_path, errno);
                return;
            }
            for (ssize_t offset = 0; offset < got;) {
                const auto* entry = reinterpret_cast<const dirent64*>(m_buffer.data() + offset);
                offset += entry->d_reclen;
                visitEntry(frame, entry);
            }
        }
    }

    void visitEntry(Frame& frame, const dirent64* entry)
    {
        if (isDotOrDotDot(entry->d_name))
            return;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN && !resolveType(frame.fd, entry->d_name, type))
            return;
        m_visitor.visitEntry(frame.fd, entry->d_name, type);
        if (type == DT_DIR)
            frame.subfolders.emplace_back(entry->d_name);
    }

    // Only for the file systems that leave d_type out: the others never pay for a stat here.
    static bool resolveType(int folderFd, const char* name, unsigned char& type)
    {
        struct stat status {};
        if (::fstatat(folderFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISLNK(status.st_mode) ? DT_LNK : DT_REG;
        return true;
    }

    void pop()
    {
        Frame child = std::move(m_stack.back());
        m_stack.pop_back();
        if (!m_stack.empty() && m_stack.back().fd < 0)
            reopenParent(child);
        closeFrame(child);
    }

    // A parent moved away meanwhile no longer has the recorded inode: its remaining sub-folders would
    // be somebody else's, so they are given up and reported.
    void reopenParent(const Frame& child)
    {
        Frame& parent = m_stack.back();
        const int fd = child.fd < 0 ? -1 : ::openat(child.fd, "..", kFolderFlags);
        struct stat status {};
        if (fd >= 0 && ::fstat(fd, &status) == 0 && status.st_dev == parent.device
            && status.st_ino == parent.inode) {
            parent.fd = fd;
            ++m_heldDescriptors;
            releaseShallowDescriptors();
            return;
        }
        if (fd >= 0)
            ::close(fd);
        parent.next = parent.subfolders.size();
        m_visitor.folderFailed(m_path.substr(0, parent.pathLength), ESTALE);
    }

    void releaseShallowDescriptors()
    {
        for (std::size_t i = 0; i + 1 < m_stack.size(); ++i) {
            Frame& frame = m_stack[i];
            if (m_heldDescriptors <= FolderWalk::kMaxHeldDescriptors)
                return;
            if (frame.fd < 0)
                continue;
            struct stat status {};
            if (::fstat(frame.fd, &status) == 0) {
                frame.device = status.st_dev;
                frame.inode = status.st_ino;
            } else {
                frame.next = frame.subfolders.size();
            }
            closeFrame(frame);
        }
    }

    void closeFrame(Frame& frame)
    {
        if (frame.fd < 0)
            return;
        ::close(frame.fd);
        frame.fd = -1;
        --m_heldDescriptors;
    }

    FolderWalk::Visitor& m_visitor;
    std::string m_path;
    std::vector<Frame> m_stack;
    std::vector<char> m_buffer = std::vector<char>(32 * 1024);
    std::size_t m_heldDescriptors = 0;
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
    Walk(visitor, root).run(rootFd);
    return true;
}
