#include "FolderNames.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kChunkBytes = 32 * 1024;

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace

FolderNames::FolderNames(int folderFd)
{
    m_complete = read(folderFd);
    if (!m_complete) {
        m_records.reset();
        m_sortedNames.clear();
    }
}

// Read into one buffer kept per thread, then kept at its exact size: a folder on the current path costs
// only what its names take.
bool FolderNames::read(int folderFd)
{
    if (folderFd < 0 || ::lseek(folderFd, 0, SEEK_SET) != 0)
        return false;
    thread_local std::vector<char> buffer(kChunkBytes);
    std::size_t size = 0;
    for (;;) {
        if (buffer.size() - size < kChunkBytes)
            buffer.resize(buffer.size() * 2);
        const ssize_t got = ::getdents64(folderFd, buffer.data() + size, buffer.size() - size);
        if (got < 0)
            return false;
        if (got == 0)
            break;
        size += static_cast<std::size_t>(got);
    }
    m_records = std::make_unique_for_overwrite<char[]>(size);
    std::memcpy(m_records.get(), buffer.data(), size);
    for (std::size_t offset = 0; offset < size;) {
        const auto* record = reinterpret_cast<const dirent64*>(m_records.get() + offset);
        if (!isDotOrDotDot(record->d_name))
            m_sortedNames.emplace_back(record->d_name);
        offset += record->d_reclen;
    }
    std::sort(m_sortedNames.begin(), m_sortedNames.end());
    return true;
}

bool FolderNames::contains(int folderFd, const char* name) const
{
    if (m_complete)
        return std::binary_search(m_sortedNames.begin(), m_sortedNames.end(), std::string_view(name));
    struct stat status {};
    return ::fstatat(folderFd, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}
