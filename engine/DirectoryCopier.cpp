#include "DirectoryCopier.h"

#include "engine/HardLinkGroups.h"
#include "engine/ItemCopier.h"
#include "engine/PreviousBackup.h"
#include "Helpers/DirectoryUtility.h"
#include "Helpers/FolderNames.h"

#include <algorithm>
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
// The previous backup's folders are only linked from, never read.
constexpr int kOpenPreviousFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// A folder being filled stays private; it gets the source folder's permission bits once it is complete.
constexpr mode_t kFillingFolderMode = S_IRWXU;
constexpr std::size_t kListingChunkBytes = 32 * 1024;

// The part of a folder's listing not handled yet, as the kernel's dirent64 records, read in chunks from
// the folder's descriptor so that a folder of any size costs one chunk.
class Listing {
public:
    // Nothing at the end of the listing, or once reading it failed: what was listed by then is all of it,
    // and error() tells why it broke off.
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
                finish(got);
        }
    }

    void abandon()
    {
        *this = Listing();
        m_complete = true;
    }

    // The errno of a listing that broke off part-way; 0 once it ended normally, or while it goes on.
    int error() const { return m_error; }

private:
    void finish(ssize_t got)
    {
        m_complete = true;
        if (got < 0)
            m_error = errno;
    }

    bool readChunk(int folderFd)
    {
        if (m_complete)
            return false;
        reserve(kListingChunkBytes);
        const ssize_t got = ::getdents64(folderFd, m_records.get(), kListingChunkBytes);
        m_size = got > 0 ? static_cast<std::size_t>(got) : 0;
        m_cursor = 0;
        if (got <= 0)
            finish(got);
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
    int m_error = 0;
};

struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool known = false;
};

// One folder on the walk's current path.
struct Level {
    // Both open while the level is held: a folder that cannot be opened on either side is never entered.
    // -1 while the level's descriptors are given up, or when one could not be taken back.
    int sourceFd = -1;
    int destinationFd = -1;
    // The same folder in the previous backup, while its files may be shared: -1 when there is none, and
    // for good once the level gave its descriptors up.
    int previousFd = -1;
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

int openFolderWith(int parentFd, const std::string& name, int flags)
{
    return ::openat(parentFd, name.c_str(), flags);
}

int openFolder(int parentFd, const std::string& name)
{
    return openFolderWith(parentFd, name, kOpenFolderFlags);
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
// is not followed to wherever it went. -1 with errno set when it cannot be; ENOENT when the way back is
// gone or leads to another folder.
int reopenParent(int childFd, const Identity& identity)
{
    if (childFd < 0 || !identity.known) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::openat(childFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const Identity found = identityOf(fd);
    if (found.known && found.device == identity.device && found.inode == identity.inode)
        return fd;
    ::close(fd);
    errno = ENOENT;
    return -1;
}

bool isOutOfSpace(int code)
{
    return code == ENOSPC || code == EDQUOT;
}

// Gone from the source since it was listed: there is nothing left that the copy could lack.
bool vanished(int sourceParentFd, const char* name)
{
    struct stat status {};
    return ::fstatat(sourceParentFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

void closeDescriptors(Level& level)
{
    if (level.sourceFd >= 0)
        ::close(level.sourceFd);
    if (level.destinationFd >= 0)
        ::close(level.destinationFd);
    if (level.previousFd >= 0)
        ::close(level.previousFd);
    level.sourceFd = level.destinationFd = level.previousFd = -1;
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
         const std::atomic<bool>& cancelRequested, const DirectoryCopier::Progress& progress,
         const std::atomic<bool>* abandonRequested, PreviousBackup* previous)
        : m_source(source)
        , m_destination(destination)
        , m_cancelRequested(cancelRequested)
        , m_progress(progress)
        , m_abandonRequested(abandonRequested)
        , m_itemCopier(abandonRequested)
        , m_previous(previous)
        , m_hardLinks(destination)
        , m_sourcePath(source.native())
        , m_rootPathLength(m_sourcePath.size())
    {
    }

    ~Copy()
    {
        for (Level& level : m_stack)
            closeDescriptors(level);
    }

    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;

    // Once the walk stops early, the folders on the current path are left as they are.
    CopyOutcome run()
    {
        enterRoot();
        while (!m_stack.empty() && m_outcome.finished())
            step();
        return std::move(m_outcome);
    }

private:
    bool abandoned() const
    {
        return m_abandonRequested && m_abandonRequested->load(std::memory_order_relaxed);
    }

    // `code` is taken before the strings are built: building them may touch errno.
    void notCopied(const char* operation, const std::string& path, int code)
    {
        m_outcome.notCopied.push_back(FsError{operation, path, code});
        if (isOutOfSpace(code))
            m_outcome.ending = CopyOutcome::Ending::OutOfSpace;
    }

    void enterRoot()
    {
        const std::optional<bool> created = createRootDestination();
        if (!created)
            return;
        Level root;
        root.destinationFd = ::open(m_destination.c_str(), kOpenRootFlags);
        if (root.destinationFd < 0) {
            const int code = errno;
            notCopied("open", {}, code);
            return;
        }
        root.sourceFd = ::open(m_source.c_str(), kOpenRootFlags);
        if (root.sourceFd < 0) {
            const int code = errno;
            notCopied("open", {}, code);
            if (*created)
                finishUnreadFolder(AT_FDCWD, m_source.native(), root.destinationFd, {});
            closeDescriptors(root);
            return;
        }
        if (*created)
            root.sourceStatus = folderStatus(root.sourceFd, AT_FDCWD, m_source.native());
        else
            root.destinationNames = FolderNames(root.destinationFd);
        root.previousFd = openPreviousRoot(root.destinationFd);
        root.sourcePathLength = m_sourcePath.size();
        push(std::move(root));
    }

    // Links cannot reach across volumes; and a previous backup that is the destination itself (two runs
    // in one second) holds nothing to share.
    int openPreviousRoot(int destinationFd) const
    {
        if (!m_previous || !m_previous->mayShare({}))
            return -1;
        const int fd = ::open(m_previous->folder().c_str(), kOpenPreviousFlags & ~O_NOFOLLOW);
        const Identity previous = identityOf(fd);
        const Identity destination = identityOf(destinationFd);
        if (previous.known && destination.known && previous.device == destination.device &&
            previous.inode != destination.inode)
            return fd;
        if (fd >= 0)
            ::close(fd);
        return -1;
    }

    // Whether this walk made the folder itself; nothing when it is not there and cannot be made. Whatever
    // stands there already, a folder or not, is left alone.
    std::optional<bool> createRootDestination()
    {
        if (::mkdir(m_destination.c_str(), kFillingFolderMode) == 0)
            return true;
        if (errno == ENOENT) {
            std::filesystem::path parent = m_destination.has_filename()
                                               ? m_destination.parent_path()
                                               : m_destination.parent_path().parent_path();
            std::error_code ignored;
            std::filesystem::create_directories(parent, ignored);
            if (::mkdir(m_destination.c_str(), kFillingFolderMode) == 0)
                return true;
        }
        const int code = errno;
        if (code == EEXIST)
            return false;
        notCopied("mkdir", {}, code);
        return std::nullopt;
    }

    void step()
    {
        if (abandoned()) {
            m_outcome.ending = CopyOutcome::Ending::Cancelled;
            return;
        }
        Level& level = m_stack.back();
        const dirent64* entry = level.listing.next(level.sourceFd);
        if (!entry) {
            if (const int code = level.listing.error())
                notCopied("getdents64", relativePath(m_sourcePath.size()), code);
            leave();
            return;
        }
        handle(level, *entry);
    }

    void handle(Level& level, const dirent64& entry)
    {
        if (isDotOrDotDot(entry.d_name) || isFinderClutter(entry.d_name))
            return;
        if (isFolder(level.sourceFd, entry))
            enter(entry.d_name);
        else
            copyItem(level, entry.d_name);
    }

    // Any item already there counts, a dangling link included: an existing item is never replaced. One
    // that appears after the destination folder was listed makes the exclusive creation fail instead,
    // which is the same case.
    void copyItem(const Level& level, const char* name)
    {
        if (level.destinationNames.contains(level.destinationFd, name) ||
            DirectoryUtility::isAliasFile(level.sourceFd, name))
            return;
        // A failed copy leaves nothing in its place, so the next run tries the item again.
        if (const std::optional<FsError> failure = copyOrLink(level, name)) {
            if (failure->code == ECANCELED && abandoned()) {
                m_outcome.ending = CopyOutcome::Ending::Cancelled;
                return;
            }
            if (failure->code != EEXIST && !(failure->code == ENOENT && vanished(level.sourceFd, name))) {
                notCopied(failure->operation.c_str(), relativePath(name), failure->code);
                if (!m_outcome.finished())
                    return;
            }
        }
        if (m_cancelRequested.load()) {
            m_outcome.ending = CopyOutcome::Ending::Cancelled;
            return;
        }
        m_progress(sourcePathOf(name));
    }

    // A regular file may become a link: to the copy of a file met before under another name, or to the
    // previous backup's unchanged copy. Anything else is copied.
    std::optional<FsError> copyOrLink(const Level& level, const char* name)
    {
        struct stat status {};
        if (::fstatat(level.sourceFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return FsError{"fstatat", name, errno};
        if (!S_ISREG(status.st_mode))
            return m_itemCopier.copyItem(level.sourceFd, name, status, level.destinationFd, name);
        if (status.st_nlink > 1 && m_hardLinks.linkToEarlierCopy(status, level.destinationFd, name))
            return std::nullopt;
        if (!sharedWithPrevious(level, name, status)) {
            if (std::optional<FsError> failure =
                    m_itemCopier.copyItem(level.sourceFd, name, status, level.destinationFd, name))
                return failure;
        }
        if (status.st_nlink > 1)
            m_hardLinks.remember(status, level.destinationFd, name, relativePath(name));
        return std::nullopt;
    }

    bool sharedWithPrevious(const Level& level, const char* name, const struct stat& status)
    {
        if (level.previousFd < 0)
            return false;
        if (m_previous->listsItemsNotCopied() && !m_previous->mayShare(relativePath(name)))
            return false;
        return m_previous->linkUnchanged(level.sourceFd, name, status, level.previousFd, level.destinationFd);
    }

    int openPreviousFolder(const Level& parent, const std::string& name, const std::string& relative) const
    {
        if (parent.previousFd < 0 || !m_previous->mayShare(relative))
            return -1;
        return openFolderWith(parent.previousFd, name, kOpenPreviousFlags);
    }

    // The destination folder comes first, so that it is there (empty) even when the source folder cannot
    // be listed. Without a destination folder there is nothing to walk for.
    void enter(const char* listedName)
    {
        const std::string name(listedName); // the listing's memory moves below
        Level& parent = m_stack.back();
        const std::string relative = relativePath(name.c_str());
        const bool created = ::mkdirat(parent.destinationFd, name.c_str(), kFillingFolderMode) == 0;
        if (const int code = errno; !created && code != EEXIST) {
            notCopied("mkdirat", relative, code);
            return;
        }
        Level child;
        child.destinationFd = openFolder(parent.destinationFd, name);
        if (child.destinationFd < 0) {
            const int code = errno;
            notCopied("openat", relative, code);
            return;
        }
        child.sourceFd = openFolder(parent.sourceFd, name);
        if (child.sourceFd < 0) {
            // One that vanished since it was listed is not missing from the copy.
            if (const int code = errno; code != ENOENT)
                notCopied("openat", relative, code);
            if (created)
                finishUnreadFolder(parent.sourceFd, name, child.destinationFd, relative);
            closeDescriptors(child);
            return;
        }
        parent.listing.keepUnreadOnly();
        child.previousFd = openPreviousFolder(parent, name, relative);
        if (created)
            child.sourceStatus = folderStatus(child.sourceFd, parent.sourceFd, name);
        else
            child.destinationNames = FolderNames(child.destinationFd);
        child.sourcePathLength = m_sourcePath.size();
        appendName(m_sourcePath, name.c_str());
        push(std::move(child));
    }

    // A destination folder made for a source folder that could not be opened stays empty: it is finished
    // at once, with what can be known of its original.
    void finishUnreadFolder(int sourceParentFd, const std::string& name, int destinationFd,
                            const std::string& relative)
    {
        if (const std::optional<struct stat> status = folderStatus(-1, sourceParentFd, name))
            giveAttributes(-1, *status, destinationFd, relative);
    }

    void leave()
    {
        Level finished = std::move(m_stack.back());
        m_stack.pop_back();
        if (m_firstHeld >= m_stack.size() && !m_stack.empty())
            reacquire(m_stack.back(), finished);
        if (finished.sourceStatus && finished.destinationFd >= 0)
            giveAttributes(finished.sourceFd, *finished.sourceStatus, finished.destinationFd,
                           relativePath(m_sourcePath.size()));
        closeDescriptors(finished);
        m_sourcePath.resize(finished.sourcePathLength);
    }

    void giveAttributes(int sourceFd, const struct stat& status, int destinationFd,
                        const std::string& relative)
    {
        if (const std::optional<FsError> failure =
                m_itemCopier.copyFolderAttributes(sourceFd, status, destinationFd))
            notCopied(failure->operation.c_str(), relative, failure->code);
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

    // A folder that cannot be taken back on either side has nothing more that could be copied: the rest
    // of its entries is one entry for the folder.
    void reacquire(Level& level, const Level& child)
    {
        level.sourceFd = reopenParent(child.sourceFd, level.sourceIdentity);
        const int sourceError = errno;
        level.destinationFd = reopenParent(child.destinationFd, level.destinationIdentity);
        const int destinationError = errno;
        m_firstHeld = m_stack.size() - 1;
        if (level.sourceFd >= 0 && level.destinationFd >= 0)
            return;
        level.listing.abandon();
        notCopied("openat", relativePath(child.sourcePathLength),
                  level.sourceFd < 0 ? sourceError : destinationError);
    }

    // The source path's first `length` bytes, relative to the source root ("" for the root itself).
    std::string relativePath(std::size_t length) const
    {
        std::size_t start = std::min(m_rootPathLength, length);
        if (start < length && m_sourcePath[start] == '/')
            ++start;
        return m_sourcePath.substr(start, length - start);
    }

    std::string relativePath(const char* name) const
    {
        std::string path = relativePath(m_sourcePath.size());
        appendName(path, name);
        return path;
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
    const std::atomic<bool>* m_abandonRequested;
    ItemCopier m_itemCopier;
    PreviousBackup* m_previous;
    HardLinkGroups m_hardLinks;
    std::vector<Level> m_stack;
    std::size_t m_firstHeld = 0;
    std::string m_sourcePath;
    std::size_t m_rootPathLength;
    CopyOutcome m_outcome;
};

} // namespace

CopyOutcome DirectoryCopier::copyDirectoryAtPath(const std::filesystem::path& source,
                                                 const std::filesystem::path& destination,
                                                 const std::atomic<bool>& cancelRequested,
                                                 const Progress& progress,
                                                 const std::atomic<bool>* abandonRequested,
                                                 PreviousBackup* previous)
{
    return Copy(source, destination, cancelRequested, progress, abandonRequested, previous).run();
}
