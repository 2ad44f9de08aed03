#include "PreviousBackup.h"

#include "engine/NotCopiedList.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <string>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

// The attributes a copy takes: never the "security." ones (labels and capabilities belong to where a
// file lives), so they cannot tell a copy from its original either.
bool isCopiedAttribute(const char* name)
{
    return std::strncmp(name, "security.", 9) != 0;
}

// Linux 6.13 has attribute calls relative to a folder descriptor; older kernels answer ENOSYS, and the
// descriptor's own entry under /proc, with the l-calls on the last name, does the same there.
#ifndef SYS_listxattrat
#define SYS_listxattrat 465
#endif
#ifndef SYS_getxattrat
#define SYS_getxattrat 464
#endif

struct AttributeArguments {
    std::uint64_t value;
    std::uint32_t size;
    std::uint32_t flags;
};

std::atomic<bool> attributeCallsAtMissing{false};

std::string pathThrough(int parentFd, const char* name)
{
    return "/proc/self/fd/" + std::to_string(parentFd) + "/" + name;
}

ssize_t listAttributes(int parentFd, const char* name, char* list, std::size_t size)
{
    if (!attributeCallsAtMissing.load(std::memory_order_relaxed)) {
        const long listed = ::syscall(SYS_listxattrat, parentFd, name, AT_SYMLINK_NOFOLLOW, list, size);
        if (listed >= 0 || errno != ENOSYS)
            return listed;
        attributeCallsAtMissing = true;
    }
    return ::llistxattr(pathThrough(parentFd, name).c_str(), list, size);
}

ssize_t getAttribute(int parentFd, const char* name, const char* attribute, char* value, std::size_t size)
{
    if (!attributeCallsAtMissing.load(std::memory_order_relaxed)) {
        AttributeArguments arguments{reinterpret_cast<std::uintptr_t>(value),
                                     static_cast<std::uint32_t>(size), 0};
        const long got = ::syscall(SYS_getxattrat, parentFd, name, AT_SYMLINK_NOFOLLOW, attribute, &arguments,
                                   sizeof arguments);
        if (got >= 0 || errno != ENOSYS)
            return got;
        attributeCallsAtMissing = true;
    }
    return ::lgetxattr(pathThrough(parentFd, name).c_str(), attribute, value, size);
}

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

PreviousBackup::PreviousBackup(std::filesystem::path folder)
    : m_folder(std::move(folder))
{
    for (FsError& item : NotCopiedList::read(m_folder))
        m_notCopied.insert(std::move(item.path).native());
}

bool PreviousBackup::mayShare(const std::string& relativePath) const
{
    if (m_notCopied.empty())
        return true;
    for (std::string path = relativePath;; path.resize(path.rfind('/'))) {
        if (m_notCopied.contains(path))
            return false;
        if (path.find('/') == std::string::npos)
            return !m_notCopied.contains(std::string());
    }
}

// Linked first and checked after: the file compared is then the very one the new backup holds, whatever
// happens to the previous backup's name meanwhile. A file that does not agree loses the new name again.
bool PreviousBackup::linkUnchanged(int liveParentFd, const char* name, const struct stat& live,
                                   int previousParentFd, int destinationParentFd)
{
    if (!S_ISREG(live.st_mode) || ::linkat(previousParentFd, name, destinationParentFd, name, 0) != 0)
        return false;
    struct stat linked {};
    if (::fstatat(destinationParentFd, name, &linked, AT_SYMLINK_NOFOLLOW) == 0 && agrees(live, linked) &&
        sameExtendedAttributes(liveParentFd, destinationParentFd, name)) {
        m_sharedInodes.insert(linked.st_ino);
        return true;
    }
    // Made exclusively a moment ago, so the name is ours to take back.
    ::unlinkat(destinationParentFd, name, 0);
    return false;
}

bool PreviousBackup::agrees(const struct stat& live, const struct stat& previous) const
{
    return live.st_mode == previous.st_mode && live.st_size == previous.st_size &&
           sameTime(live.st_mtim, previous.st_mtim) && !m_sharedInodes.contains(previous.st_ino);
}

bool PreviousBackup::sameExtendedAttributes(int liveParentFd, int linkedParentFd, const char* name)
{
    return readAttributes(liveParentFd, name, m_liveAttributes) &&
           readAttributes(linkedParentFd, name, m_previousAttributes) &&
           m_liveAttributes == m_previousAttributes;
}

// Each attribute as its name, a NUL and its value, sorted. False when they cannot be read: what cannot
// be compared is not shared.
bool PreviousBackup::readAttributes(int parentFd, const char* name, std::vector<std::string>& into)
{
    into.clear();
    const ssize_t listed = withRoomFor(m_names, XATTR_LIST_MAX, [&](char* buffer, std::size_t size) {
        return listAttributes(parentFd, name, buffer, size);
    });
    if (listed < 0)
        return errno == ENOTSUP;
    for (ssize_t offset = 0; offset < listed;) {
        const char* attribute = m_names.data() + offset;
        offset += static_cast<ssize_t>(std::strlen(attribute) + 1);
        if (!isCopiedAttribute(attribute))
            continue;
        const ssize_t size = withRoomFor(m_value, XATTR_SIZE_MAX, [&](char* buffer, std::size_t room) {
            return getAttribute(parentFd, name, attribute, buffer, room);
        });
        if (size < 0)
            return false;
        std::string entry(attribute);
        entry.push_back('\0');
        entry.append(m_value.data(), static_cast<std::size_t>(size));
        into.push_back(std::move(entry));
    }
    std::sort(into.begin(), into.end());
    return true;
}

// The kernel sets aside as much memory as the buffer offered, for every call: a small buffer first, and
// the largest only for what does not fit.
template<typename Call>
ssize_t PreviousBackup::withRoomFor(std::vector<char>& buffer, std::size_t most, const Call& call)
{
    constexpr std::size_t kFirstTry = 1024;
    if (buffer.size() < kFirstTry)
        buffer.resize(kFirstTry);
    const ssize_t got = call(buffer.data(), kFirstTry);
    if (got >= 0 || errno != ERANGE)
        return got;
    buffer.resize(most);
    return call(buffer.data(), most);
}
