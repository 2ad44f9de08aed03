#include "DirectoryCopier.h"

#include "Helpers/DirectoryUtility.h"
#include "Helpers/FolderNames.h"
#include "engine/ItemCopier.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kOpenFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kOpenRootFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// A folder being filled stays private; it gets the source folder's permission bits once it is complete.
constexpr mode_t kFillingFolderMode = S_IRWXU;
constexpr std::size_t kListingChunkBytes = 32 * 1024;

// The part of a folder's listing not handled yet, as the kernel's dirent64 records, read in chunks from
// the folder's descriptor so that a folder of any size costs one chunk.
class Listing {
public:
    // Nothing at the end of the listing, or once reading it failed: what was listed by then is all of it.
    const dirent64* next(int folderFd)
    {
        if (m_cursor >= m_size && !readChunk(folderFd))
            return nullptr;
        const auto* record = reinterpret_cast<const dirent64*>(m_records.get() + m_cursor);
        m_cursor += record->d_reclen;
        return record;
    }

    // A folder waiting for its sub-folder keeps only the records still to come.
    void keepUnreadOnly()
    {
        const std::size_t unread = m_size - m_cursor;
        std::unique_ptr<char[]> kept = unread ? std::make_unique_for_overwrite<char[]>(unread) : nullptr;
        if (unread)
            std::memcpy(kept.get(), m_records.get() + m_cursor, unread);
        m_records = std::move(kept);
        m_size = m_capacity = unread;
        m_cursor = 0;
    }

    // Reads the rest of the folder into memory, so that its descriptor can be closed; the listing no
    // longer reads any descriptor after this, since a reopened one would start over.
    void readRest(int folderFd)
    {
        keepUnreadOnly();
        while (!m_complete) {
            reserve(m_size + kListingChunkBytes);
            const ssize_t got = ::getdents64(folderFd, m_records.get() + m_size, kListingChunkBytes);
            if (got > 0)
                m_size += static_cast<std::size_t>(got);
            else
                m_complete = true;
        }
    }

    void abandon()
    {
        *this = Listing();
        m_complete = true;
    }

private:
    bool readChunk(int folderFd)
    {
        if (m_complete)
            return false;
        reserve(kListingChunkBytes);
        const ssize_t got = ::getdents64(folderFd, m_records.get(), kListingChunkBytes);
        m_size = got > 0 ? static_cast<std::size_t>(got) : 0;
        m_cursor = 0;
        m_complete = got <= 0;
        return got > 0;
    }

    void reserve(std::size_t capacity)
    {
        if (capacity <= m_capacity)
            return;
        capacity = std::max(capacity, m_capacity * 2);
        std::unique_ptr<char[]> larger = std::make_unique_for_overwrite<char[]>(capacity);
        if (m_size)
            std::memcpy(larger.get(), m_records.get(), m_size);
        m_records = std::move(larger);
        m_capacity = capacity;
    }

    std::unique_ptr<char[]> m_records;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
    std::size_t m_cursor = 0;
    bool m_complete = false;
};

struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool known = false;
};

// One folder on the walk's current path.
struct Level {
    // -1 when the folder could not be opened: every call relative to it then fails with EBADF, which is
    // what passes its items over. Also -1 while the level's descriptors are given up.
    int sourceFd = -1;
    int destinationFd = -1;
    Listing listing;
    // What the destination folder held when the walk came to it: nothing, when the walk created it.
    FolderNames destinationNames;
    std::size_t sourcePathLength = 0; // of the walk's source path before this folder's name was added
    // Only for a destination folder this walk created: the source folder's status, given to it on leaving.
    std::optional<struct stat> sourceStatus;
    // Who the folders were when their descriptors were given up.
    Identity sourceIdentity;
    Identity destinationIdentity;
};

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

bool isFinderClutter(const char* name)
{
    return std::strcmp(name, ".DS_Store") == 0;
}

// The entry itself, never a link's target. An entry gone since the listing is no folder.
bool isFolder(int parentFd, const dirent64& entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat status {};
    return ::fstatat(parentFd, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

int openFolder(int parentFd, const std::string& name)
{
    return ::openat(parentFd, name.c_str(), kOpenFolderFlags);
}

std::optional<struct stat> folderStatus(int folderFd, int parentFd, const std::string& name)
{
    struct stat status {};
    const bool known = folderFd >= 0 ? ::fstat(folderFd, &status) == 0
                                     : ::fstatat(parentFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!known || !S_ISDIR(status.st_mode))
        return std::nullopt;
    return status;
}

Identity identityOf(int fd)
{
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0)
        return {};
    return Identity{status.st_dev, status.st_ino, true};
}

// The child's ".." is taken only when it is still the folder that was given up: one moved away meanwhile
// is not followed to wherever it went.
int reopenParent(int childFd, const Identity& identity)
{
    if (childFd < 0 || !identity.known)
        return -1;
    const int fd = ::openat(childFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const Identity found = identityOf(fd);
    if (found.known && found.device == identity.device && found.inode == identity.inode)
        return fd;
    if (fd >= 0)
        ::close(fd);
    return -1;
}

void closeDescriptors(Level& level)
{
    if (level.sourceFd >= 0)
        ::close(level.sourceFd);
    if (level.destinationFd >= 0)
        ::close(level.destinationFd);
    level.sourceFd = level.destinationFd = -1;
}

void appendName(std::string& path, const char* name)
{
    if (!path.empty() && path.back() != '/')
        path += '/';
    path += name;
}

class Copy {
public:
    Copy(const std::filesystem::path& source, const std::filesystem::path& destination,
         const std::atomic<bool>& cancelRequested, const DirectoryCopier::Progress& progress)
        : m_source(source)
        , m_destination(destination)
        , m_cancelRequested(cancelRequested)
        , m_progress(progress)
        , m_sourcePath(source.native())
    {
    }

    ~Copy()
    {
        for (Level& level : m_stack)
            closeDescriptors(level);
    }

    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;

    // False as soon as a cancel is seen after a copy; the folders on the current path are left as they are.
    bool run()
    {
        enterRoot();
        while (!m_stack.empty()) {
            if (step() == Outcome::Cancelled)
                return false;
        }
        return true;
    }

private:
    enum class Outcome { Continue, Cancelled };

    void enterRoot()
    {
        Level root;
        const bool created = createRootDestination();
        root.destinationFd = ::open(m_destination.c_str(), kOpenRootFlags);
        root.sourceFd = ::open(m_source.c_str(), kOpenRootFlags);
        if (!created)
            root.destinationNames = FolderNames(root.destinationFd);
        if (created && root.destinationFd >= 0)
            root.sourceStatus = folderStatus(root.sourceFd, AT_FDCWD, m_source.native());
        root.sourcePathLength = m_sourcePath.size();
        push(std::move(root));
    }

    // True only when this walk made the folder itself. Whatever stands there already, a folder or not, is
    // left alone; a file there simply makes every copy into it fail.
    bool createRootDestination()
    {
        if (::mkdir(m_destination.c_str(), kFillingFolderMode) == 0)
            return true;
        if (errno != ENOENT)
            return false;
        std::filesystem::path parent = m_destination.has_filename()
                                           ? m_destination.parent_path()
                                           : m_destination.parent_path().parent_path();
        std::error_code ignored;
        std::filesystem::create_directories(parent, ignored);
        return ::mkdir(m_destination.c_str(), kFillingFolderMode) == 0;
    }

    Outcome step()
    {
        Level& level = m_stack.back();
        const dirent64* entry = level.listing.next(level.sourceFd);
        if (!entry) {
            leave();
            return Outcome::Continue;
        }
        return handle(level, *entry);
    }

    Outcome handle(Level& level, const dirent64& entry)
    {
        if (isDotOrDotDot(entry.d_name) || isFinderClutter(entry.d_name))
            return Outcome::Continue;
        if (isFolder(level.sourceFd, entry)) {
            enter(entry.d_name);
            return Outcome::Continue;
        }
        return copyItem(level, entry.d_name);
    }

    // Any item already there counts, a dangling link included: an existing item is never replaced. One
    // that appears after the destination folder was listed makes the exclusive creation fail instead.
    Outcome copyItem(const Level& level, const char* name)
    {
        if (level.destinationNames.contains(level.destinationFd, name) || DirectoryUtility::isAliasFile(level.sourceFd, name))
            return Outcome::Continue;
        // A copy that fails is passed over like one that worked: the item is missing from the copy and the
        // next run tries it again, since nothing was left in its place.
        (void)m_itemCopier.copyItem(level.sourceFd, name, level.destinationFd, name);
        if (m_cancelRequested.load())
            return Outcome::Cancelled;
        m_progress(sourcePathOf(name));
        return Outcome::Continue;
    }

    // The destination folder comes first, so that it is there (empty) even when the source folder cannot
    // be listed.
    void enter(const char* listedName)
    {
        const std::string name(listedName); // the listing's memory moves below
        Level& parent = m_stack.back();
        parent.listing.keepUnreadOnly();
        Level child;
        const bool created = ::mkdirat(parent.destinationFd, name.c_str(), kFillingFolderMode) == 0;
        child.destinationFd = openFolder(parent.destinationFd, name);
        child.sourceFd = openFolder(parent.sourceFd, name);
        if (!created)
            child.destinationNames = FolderNames(child.destinationFd);
        if (created && child.destinationFd >= 0)
            child.sourceStatus = folderStatus(child.sourceFd, parent.sourceFd, name);
        child.sourcePathLength = m_sourcePath.size();
        appendName(m_sourcePath, name.c_str());
        push(std::move(child));
    }

    void leave()
    {
        Level finished = std::move(m_stack.back());
        m_stack.pop_back();
        if (m_firstHeld >= m_stack.size() && !m_stack.empty())
            reacquire(m_stack.back(), finished);
        finishDestination(finished);
        closeDescriptors(finished);
        m_sourcePath.resize(finished.sourcePathLength);
    }

    // The folder's content is what counts: attributes that cannot be given to it are passed over.
    void finishDestination(const Level& level)
    {
        if (level.sourceStatus && level.destinationFd >= 0)
            (void)m_itemCopier.copyFolderAttributes(level.sourceFd, *level.sourceStatus, level.destinationFd);
    }

    // The held levels are always the deepest ones: [m_firstHeld, size). Shallower ones give their
    // descriptors up, after reading the rest of their listing.
    void push(Level&& level)
    {
        m_stack.push_back(std::move(level));
        while (m_stack.size() - m_firstHeld > DirectoryCopier::kMaxHeldLevels)
            release(m_stack[m_firstHeld++]);
    }

    static void release(Level& level)
    {
        level.listing.readRest(level.sourceFd);
        level.sourceIdentity = identityOf(level.sourceFd);
        level.destinationIdentity = identityOf(level.destinationFd);
        closeDescriptors(level);
    }

    // A source folder that cannot be taken back has nothing more to copy; a destination folder that cannot
    // makes the remaining copies into it fail.
    void reacquire(Level& level, const Level& child)
    {
        level.sourceFd = reopenParent(child.sourceFd, level.sourceIdentity);
        level.destinationFd = reopenParent(child.destinationFd, level.destinationIdentity);
        if (level.sourceFd < 0)
            level.listing.abandon();
        m_firstHeld = m_stack.size() - 1;
    }

    std::filesystem::path sourcePathOf(const char* name) const
    {
        std::string path = m_sourcePath;
        appendName(path, name);
        return std::filesystem::path(std::move(path));
    }

    const std::filesystem::path& m_source;
    const std::filesystem::path& m_destination;
    const std::atomic<bool>& m_cancelRequested;
    const DirectoryCopier::Progress& m_progress;
    ItemCopier m_itemCopier;
    std::vector<Level> m_stack;
    std::size_t m_firstHeld = 0;
    std::string m_sourcePath;
};

} // namespace

bool DirectoryCopier::copyDirectoryAtPath(const std::filesystem::path& source,
                                          const std::filesystem::path& destination,
                                          const std::atomic<bool>& cancelRequested, const Progress& progress)
{
    return Copy(source, destination, cancelRequested, progress).run();
}
