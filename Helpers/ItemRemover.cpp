#include "ItemRemover.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kOpenFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// At most this many folder descriptors stay open; shallower ones are closed and reopened through ".."
// (checked by device and inode) on the way back up.
constexpr std::size_t kMaxHeldDescriptors = 64;

struct Level {
    int fd;
    std::string name; // in the parent level
    dev_t device = 0;
    ino_t inode = 0;
};

class Removal {
public:
    Removal(int parentFd, std::string name)
        : m_parentFd(parentFd)
        , m_root(name)
        , m_name(std::move(name))
    {
    }

    std::optional<FsError> run()
    {
        struct stat st {};
        if (::fstatat(m_parentFd, m_name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return FsError{"fstatat", m_root, errno};
        if (!S_ISDIR(st.st_mode)) {
            if (::unlinkat(m_parentFd, m_name.c_str(), 0) != 0)
                note("unlinkat", errno);
            return m_failure;
        }
        int fd = ::openat(m_parentFd, m_name.c_str(), kOpenFolderFlags);
        if (fd < 0)
            return FsError{"openat", m_root, errno};
        (void)::fchmod(fd, 0700);
        m_levels.push_back({fd, {}, 0, 0});
        while (!m_levels.empty())
            step();
        if (::unlinkat(m_parentFd, m_name.c_str(), AT_REMOVEDIR) != 0)
            note("unlinkat", errno);
        return m_failure;
    }

private:
    // Empties the deepest open folder of its files; descends into its first sub-folder, or, when it has
    // none left, closes it and removes it from its parent.
    void step()
    {
        Level& level = m_levels.back();
        std::string subfolder;
        if (!clearFilesFindSubfolder(level.fd, subfolder)) {
            leaveLevel();
            return;
        }
        int child = ::openat(level.fd, subfolder.c_str(), kOpenFolderFlags);
        if (child < 0) {
            // Gone meanwhile, or replaced by something that is not a folder: remove that instead.
            if (::unlinkat(level.fd, subfolder.c_str(), 0) != 0 && errno != ENOENT)
                skip(level.fd, subfolder);
            return;
        }
        // A folder the owner made read-only could not be emptied; this is a removal, so open it up.
        (void)::fchmod(child, 0700);
        m_levels.push_back({child, subfolder, 0, 0});
        releaseShallowDescriptor();
    }

    void releaseShallowDescriptor()
    {
        std::size_t held = 0;
        for (const Level& level : m_levels)
            held += level.fd >= 0 ? 1 : 0;
        for (std::size_t i = 0; held > kMaxHeldDescriptors && i + 1 < m_levels.size(); ++i) {
            Level& level = m_levels[i];
            struct stat st {};
            if (level.fd < 0 || ::fstat(level.fd, &st) != 0)
                continue;
            level.device = st.st_dev;
            level.inode = st.st_ino;
            ::close(level.fd);
            level.fd = -1;
            --held;
        }
    }

    // Comes back to a released parent through the child's "..". A parent that was moved meanwhile is not
    // the folder this removal was asked for: the removal stops there.
    bool reopenParent(int childFd)
    {
        Level& parent = m_levels.back();
        int fd = ::openat(childFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct stat st {};
        if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == parent.device && st.st_ino == parent.inode) {
            parent.fd = fd;
            return true;
        }
        if (fd >= 0)
            ::close(fd);
        note("openat", ESTALE);
        return false;
    }

    // Removes every non-folder entry; true with the name of a sub-folder still to remove.
    bool clearFilesFindSubfolder(int fd, std::string& subfolder)
    {
        ::lseek(fd, 0, SEEK_SET);
        int listFd = ::dup(fd);
        DIR* dir = listFd < 0 ? nullptr : ::fdopendir(listFd);
        if (!dir) {
            if (listFd >= 0)
                ::close(listFd);
            note("fdopendir", errno);
            return false;
        }
        bool found = false;
        while (dirent* ent = ::readdir(dir)) {
            const char* name = ent->d_name;
            if (!std::strcmp(name, ".") || !std::strcmp(name, "..") || isSkipped(fd, name))
                continue;
            if (ent->d_type == DT_DIR || (ent->d_type == DT_UNKNOWN && isFolder(fd, name))) {
                if (!found) {
                    subfolder = name;
                    found = true;
                }
                continue;
            }
            if (::unlinkat(fd, name, 0) != 0 && errno != ENOENT) {
                note("unlinkat", errno);
                skip(fd, name);
            }
        }
        ::closedir(dir);
        return found;
    }

    void leaveLevel()
    {
        Level level = m_levels.back();
        m_levels.pop_back();
        const bool parentReady = m_levels.empty() || m_levels.back().fd >= 0 || reopenParent(level.fd);
        ::close(level.fd);
        if (!parentReady) {
            abandon();
            return;
        }
        if (m_levels.empty())
            return;
        const int parent = m_levels.back().fd;
        if (::unlinkat(parent, level.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            note("unlinkat", errno);
            skip(parent, level.name);
        }
    }

    void abandon()
    {
        for (const Level& level : m_levels) {
            if (level.fd >= 0)
                ::close(level.fd);
        }
        m_levels.clear();
    }

    static bool isFolder(int fd, const char* name)
    {
        struct stat st {};
        return ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    }

    // Entries that could not be removed are remembered by device and inode, so the walk does not try
    // them forever.
    void skip(int fd, const std::string& name)
    {
        struct stat st {};
        if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0)
            m_skipped.push_back({st.st_dev, st.st_ino});
    }

    bool isSkipped(int fd, const char* name) const
    {
        if (m_skipped.empty())
            return false;
        struct stat st {};
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        for (const auto& [device, inode] : m_skipped) {
            if (device == st.st_dev && inode == st.st_ino)
                return true;
        }
        return false;
    }

    void note(const char* operation, int code)
    {
        if (!m_failure)
            m_failure = FsError{operation, m_root, code};
    }

    int m_parentFd;
    std::filesystem::path m_root; // for error reports
    std::string m_name;
    std::vector<Level> m_levels;
    std::vector<std::pair<dev_t, ino_t>> m_skipped;
    std::optional<FsError> m_failure;
};

} // namespace

std::optional<FsError> ItemRemover::removeItemAtPath(const std::filesystem::path& given)
{
    const std::filesystem::path path = given.has_filename() ? given : given.parent_path();
    const std::filesystem::path parent = path.has_parent_path() ? path.parent_path() : ".";
    int parentFd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0)
        return FsError{"open", parent, errno};
    std::optional<FsError> failure = removeItemAt(parentFd, path.filename().string());
    ::close(parentFd);
    if (failure)
        failure->path = path;
    return failure;
}

std::optional<FsError> ItemRemover::removeItemAt(int parentFd, const std::string& name)
{
    return Removal(parentFd, name).run();
}
