#include "CocoaAdditions.h"

#include <cerrno>
#include <limits>
#include <sys/statvfs.h>

std::int64_t CocoaAdditions::determineFreeSpaceOnDeviceByPath(const std::filesystem::path& path,
                                                              FsError* error)
{
    struct statvfs fs {};
    if (::statvfs(path.c_str(), &fs) != 0) {
        if (error)
            *error = FsError{"statvfs", path, errno};
        return 0;
    }
    constexpr auto maxBytes = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const std::uint64_t blockSize = fs.f_frsize;
    const std::uint64_t blocks = fs.f_bavail;
    if (blockSize != 0 && blocks > maxBytes / blockSize)
        return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(blocks * blockSize);
}
