#include "ItemCopier.h"

#include "Helpers/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/limits.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr int kCreateFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
// O_NONBLOCK: should a FIFO be swapped in for the file after it was looked at, opening it must not wait
// for a writer. It changes nothing for a regular file.
constexpr int kSourceFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// A copy stays private while it fills: a half-written copy of a private document must not be readable
// by others, whatever the original's final permission bits are.
constexpr mode_t kFillingMode = S_IRUSR | S_IWUSR;
constexpr std::size_t kTransferBytes = 256 * 1024;
constexpr std::size_t kMaxLinkTargetBytes = 1 << 20;
// Smaller files fit in the kernel's first read-ahead anyway.
constexpr off_t kSequentialHintBytes = 1 << 20;

// The reading side only wants not to touch the documents' access times, which O_NOATIME grants to their
// owner alone.
int openSource(int parentFd, const char* name)
{
    const int fd = ::openat(parentFd, name, kSourceFlags | O_NOATIME);
    if (fd >= 0 || errno != EPERM)
        return fd;
    return ::openat(parentFd, name, kSourceFlags);
}

// Answers that mean "not this way here" rather than a failure of the data: the next way is tried. EPERM
// is among them because container sandboxes refuse copy_file_range with it.
bool isRefusal(int code)
{
    return code == ENOSYS || code == EOPNOTSUPP || code == ENOTSUP || code == EXDEV || code == EINVAL ||
           code == EPERM || code == EBADF || code == ETXTBSY;
}

// An attribute the destination will not take leaves that one attribute out, never the document. ENOSPC
// and E2BIG are how ext4 says that the attributes do not fit one inode, not that the disk is full.
bool isAttributeRefusal(int code)
{
    return code == ENOTSUP || code == EOPNOTSUPP || code == EPERM || code == EACCES || code == ENOSPC ||
           code == EDQUOT || code == E2BIG || code == ERANGE || code == EINVAL;
}

// Security labels belong to where a file lives and capabilities grant rights: a copy takes neither.
bool isCopiedAttribute(const char* name)
{
    return std::strncmp(name, "security.", 9) != 0;
}

std::optional<FsError> writeAllAt(int destination, const char* data, std::size_t size, off_t offset,
                                  const char* name)
{
    while (size > 0) {
        const ssize_t written = ::pwrite(destination, data, size, offset);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return FsError{"write", name, written < 0 ? errno : EIO};
        data += written;
        size -= static_cast<std::size_t>(written);
        offset += written;
    }
    return std::nullopt;
}

// st_size is the target's length on most file systems but 0 on some; a buffer filled to the brim may
// hold a target cut short, so it is read again into a larger one.
std::optional<FsError> readLinkTarget(int parentFd, const char* name, const struct stat& status,
                                      std::string& target)
{
    std::size_t capacity = std::max<std::size_t>(static_cast<std::size_t>(status.st_size) + 1, 256);
    for (;;) {
        target.resize(capacity);
        const ssize_t got = ::readlinkat(parentFd, name, target.data(), capacity);
        if (got < 0)
            return FsError{"readlinkat", name, errno};
        if (static_cast<std::size_t>(got) < capacity) {
            target.resize(static_cast<std::size_t>(got));
            return std::nullopt;
        }
        if (capacity >= kMaxLinkTargetBytes)
            return FsError{"readlinkat", name, ENAMETOOLONG};
        capacity *= 2;
    }
}

// A set-user-ID or set-group-ID bit lends its owner's rights to whoever runs the file, so it is kept only
// where the copy has the same owner (or group) as the original.
mode_t permissionBits(const struct stat& source, int destination)
{
    mode_t bits = source.st_mode & 07777;
    if ((bits & (S_ISUID | S_ISGID)) == 0)
        return bits;
    struct stat copy {};
    if (::fstat(destination, &copy) != 0)
        return bits & ~mode_t(S_ISUID | S_ISGID);
    if (copy.st_uid != source.st_uid)
        bits &= ~mode_t(S_ISUID);
    if (copy.st_gid != source.st_gid)
        bits &= ~mode_t(S_ISGID);
    return bits;
}

} // namespace

ItemCopier::ItemCopier(const std::atomic<bool>* abandonRequested)
    : m_abandonRequested(abandonRequested)
    , m_attributeNames(XATTR_LIST_MAX)
    , m_attributeValue(XATTR_SIZE_MAX)
{
}

std::optional<FsError> ItemCopier::copyItem(int sourceParentFd, const char* sourceName,
                                            int destinationParentFd, const char* destinationName)
{
    struct stat status {};
    if (::fstatat(sourceParentFd, sourceName, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return FsError{"fstatat", sourceName, errno};
    return copyItem(sourceParentFd, sourceName, status, destinationParentFd, destinationName);
}

std::optional<FsError> ItemCopier::copyItem(int sourceParentFd, const char* sourceName,
                                            const struct stat& status, int destinationParentFd,
                                            const char* destinationName)
{
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
        return copyRegularFile(sourceParentFd, sourceName, destinationParentFd, destinationName);
    case S_IFLNK:
        return copySymbolicLink(sourceParentFd, sourceName, status, destinationParentFd, destinationName);
    case S_IFIFO:
        return copyFifo(status, destinationParentFd, destinationName);
    case S_IFDIR:
        return FsError{"copy", sourceName, EISDIR};
    case S_IFSOCK:
        // A socket only stands for the program listening on it; a copy would be a dead end.
        return FsError{"copy socket", sourceName, ENOTSUP};
    default:
        // A copy of a device would not be the thing it stands for.
        return FsError{"copy device", sourceName, ENOTSUP};
    }
}

std::optional<FsError> ItemCopier::copyFolderAttributes(int sourceFd, const struct stat& source,
                                                        int destinationFd)
{
    if (sourceFd >= 0) {
        if (std::optional<FsError> failure = copyExtendedAttributes(sourceFd, destinationFd, "."))
            return failure;
    }
    return copyPermissionsAndTimes(source, destinationFd, ".");
}

std::optional<FsError> ItemCopier::copyRegularFile(int sourceParentFd, const char* sourceName,
                                                   int destinationParentFd, const char* destinationName)
{
    FileDescriptor source(openSource(sourceParentFd, sourceName));
    if (source.get() < 0)
        return FsError{"openat", sourceName, errno};
    // The descriptor's own status: the name may stand for another file than the one looked at before.
    struct stat status {};
    if (::fstat(source.get(), &status) != 0)
        return FsError{"fstat", sourceName, errno};
    if (!S_ISREG(status.st_mode))
        return FsError{"openat", sourceName, EINVAL};
    FileDescriptor destination(::openat(destinationParentFd, destinationName, kCreateFlags, kFillingMode));
    if (destination.get() < 0)
        return FsError{"openat", destinationName, errno};
    std::optional<FsError> failure =
        fillRegularFile(source.get(), status, destination.get(), sourceName, destinationName);
    if (!failure && !destination.close())
        failure = FsError{"close", destinationName, errno};
    // Created exclusively a moment ago, so the name is ours to remove.
    if (failure)
        ::unlinkat(destinationParentFd, destinationName, 0);
    return failure;
}

// The times come last: writing the content or the attributes would change them again.
std::optional<FsError> ItemCopier::fillRegularFile(int source, const struct stat& status, int destination,
                                                   const char* sourceName, const char* destinationName)
{
    if (std::optional<FsError> failure =
            copyContent(source, status, destination, sourceName, destinationName))
        return failure;
    if (std::optional<FsError> failure = copyExtendedAttributes(source, destination, destinationName))
        return failure;
    return copyPermissionsAndTimes(status, destination, destinationName);
}

// The size read from the open file is what gets copied: the times stamped on the copy belong to that
// size. A file that shrinks meanwhile is copied as far as it goes.
std::optional<FsError> ItemCopier::copyContent(int source, const struct stat& status, int destination,
                                               const char* sourceName, const char* destinationName)
{
    if (status.st_size == 0)
        return std::nullopt;
    if (abandoned())
        return FsError{"copy", sourceName, ECANCELED};
    // A clone shares the blocks on file systems that can (Btrfs, XFS): instant, and no space used twice.
    // Refused, it has written nothing.
    if (::ioctl(destination, FICLONE, source) == 0)
        return std::nullopt;
    // Read once from start to end: a larger read-ahead keeps the disk busy when the file is not cached.
    if (status.st_size >= kSequentialHintBytes)
        ::posix_fadvise(source, 0, 0, POSIX_FADV_SEQUENTIAL);
    // ENXIO: the file is one hole. A file system that cannot tell where the holes are answers EINVAL, and
    // the file is copied whole.
    if (hasHoles(status) && (::lseek(source, 0, SEEK_DATA) >= 0 || errno == ENXIO))
        return copyDataOnly(source, status.st_size, destination, sourceName, destinationName);
    return copyRange(source, 0, status.st_size, destination, sourceName, destinationName);
}

// Fewer blocks than the length needs: some of it is holes, which read as zeros but take no space.
bool ItemCopier::hasHoles(const struct stat& status)
{
    return status.st_blocks * 512 < status.st_size;
}

// Only the parts that hold data are written, so that the copy keeps the original's holes (a disk image
// of 1 GiB holding 4 KiB of data stays 4 KiB); a hole at the end is the length set last.
std::optional<FsError> ItemCopier::copyDataOnly(int source, off_t size, int destination,
                                                const char* sourceName, const char* destinationName)
{
    for (off_t offset = 0; offset < size;) {
        const off_t data = ::lseek(source, offset, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break;
        if (data < 0)
            return FsError{"lseek", sourceName, errno};
        const off_t hole = ::lseek(source, data, SEEK_HOLE);
        if (hole < 0)
            return FsError{"lseek", sourceName, errno};
        const off_t end = std::min(hole, size);
        if (data >= end)
            break;
        if (std::optional<FsError> failure =
                copyRange(source, data, end - data, destination, sourceName, destinationName))
            return failure;
        offset = end;
    }
    return extendTo(destination, size, destinationName);
}

std::optional<FsError> ItemCopier::extendTo(int destination, off_t size, const char* destinationName)
{
    if (::ftruncate(destination, size) != 0)
        return FsError{"ftruncate", destinationName, errno};
    return std::nullopt;
}

std::optional<FsError> ItemCopier::copyRange(int source, off_t offset, off_t length, int destination,
                                             const char* sourceName, const char* destinationName)
{
    loff_t in = offset;
    loff_t out = offset;
    off_t remaining = length;
    while (remaining > 0) {
        if (abandoned())
            return FsError{"copy_file_range", sourceName, ECANCELED};
        const std::size_t wanted = std::min<std::size_t>(static_cast<std::size_t>(remaining), kRangeBytes);
        const ssize_t copied = ::copy_file_range(source, &in, destination, &out, wanted, 0);
        if (copied > 0) {
            remaining -= copied;
            continue;
        }
        if (copied < 0 && errno == EINTR)
            continue;
        if (copied < 0 && !isRefusal(errno))
            return FsError{"copy_file_range", sourceName, errno};
        // Refused, or an early end that some file systems give instead of a refusal: reading tells which.
        break;
    }
    return copyByReadAndWrite(source, in, remaining, destination, sourceName, destinationName);
}

std::optional<FsError> ItemCopier::copyByReadAndWrite(int source, off_t offset, off_t remaining,
                                                      int destination, const char* sourceName,
                                                      const char* destinationName)
{
    if (remaining > 0 && m_transfer.empty())
        m_transfer.resize(kTransferBytes);
    while (remaining > 0) {
        if (abandoned())
            return FsError{"read", sourceName, ECANCELED};
        const std::size_t wanted =
            std::min<std::size_t>(static_cast<std::size_t>(remaining), m_transfer.size());
        const ssize_t got = ::pread(source, m_transfer.data(), wanted, offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return FsError{"read", sourceName, errno};
        if (got == 0)
            return std::nullopt;
        if (std::optional<FsError> failure = writeAllAt(
                destination, m_transfer.data(), static_cast<std::size_t>(got), offset, destinationName))
            return failure;
        offset += got;
        remaining -= got;
    }
    return std::nullopt;
}

std::optional<FsError> ItemCopier::copySymbolicLink(int sourceParentFd, const char* sourceName,
                                                    const struct stat& status, int destinationParentFd,
                                                    const char* destinationName)
{
    std::string target;
    if (std::optional<FsError> failure = readLinkTarget(sourceParentFd, sourceName, status, target))
        return failure;
    if (::symlinkat(target.c_str(), destinationParentFd, destinationName) != 0)
        return FsError{"symlinkat", destinationName, errno};
    const timespec times[2] = {status.st_atim, status.st_mtim};
    if (::utimensat(destinationParentFd, destinationName, times, AT_SYMLINK_NOFOLLOW) == 0)
        return std::nullopt;
    const FsError failure{"utimensat", destinationName, errno};
    ::unlinkat(destinationParentFd, destinationName, 0);
    return failure;
}

// The FIFO is changed through a descriptor, never by name again, so nothing swapped in for it is touched.
std::optional<FsError> ItemCopier::copyFifo(const struct stat& status, int destinationParentFd,
                                            const char* destinationName)
{
    if (::mkfifoat(destinationParentFd, destinationName, kFillingMode) != 0)
        return FsError{"mkfifoat", destinationName, errno};
    FileDescriptor fifo(
        ::openat(destinationParentFd, destinationName, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    std::optional<FsError> failure = fifo.get() < 0
                                         ? FsError{"openat", destinationName, errno}
                                         : copyPermissionsAndTimes(status, fifo.get(), destinationName);
    if (failure)
        ::unlinkat(destinationParentFd, destinationName, 0);
    return failure;
}

std::optional<FsError> ItemCopier::copyExtendedAttributes(int source, int destination,
                                                          const char* destinationName)
{
    const ssize_t listed = ::flistxattr(source, m_attributeNames.data(), m_attributeNames.size());
    if (listed < 0 && !isAttributeRefusal(errno))
        return FsError{"flistxattr", destinationName, errno};
    for (ssize_t offset = 0; offset < listed;) {
        const char* name = m_attributeNames.data() + offset;
        offset += static_cast<ssize_t>(std::strlen(name) + 1);
        if (std::optional<FsError> failure =
                copyExtendedAttribute(source, destination, name, destinationName))
            return failure;
    }
    return std::nullopt;
}

std::optional<FsError> ItemCopier::copyExtendedAttribute(int source, int destination, const char* name,
                                                         const char* destinationName)
{
    if (!isCopiedAttribute(name))
        return std::nullopt;
    const ssize_t size = ::fgetxattr(source, name, m_attributeValue.data(), m_attributeValue.size());
    if (size < 0 && (errno == ENODATA || isAttributeRefusal(errno)))
        return std::nullopt; // removed since it was listed, or not ours to read
    if (size < 0)
        return FsError{"fgetxattr", destinationName, errno};
    if (::fsetxattr(destination, name, m_attributeValue.data(), static_cast<std::size_t>(size), 0) != 0 &&
        !isAttributeRefusal(errno))
        return FsError{"fsetxattr", destinationName, errno};
    return std::nullopt;
}

std::optional<FsError> ItemCopier::copyPermissionsAndTimes(const struct stat& source, int destination,
                                                           const char* destinationName)
{
    if (::fchmod(destination, permissionBits(source, destination)) != 0)
        return FsError{"fchmod", destinationName, errno};
    const timespec times[2] = {source.st_atim, source.st_mtim};
    if (::futimens(destination, times) != 0)
        return FsError{"futimens", destinationName, errno};
    return std::nullopt;
}

bool ItemCopier::abandoned() const
{
    return m_abandonRequested && m_abandonRequested->load(std::memory_order_relaxed);
}
