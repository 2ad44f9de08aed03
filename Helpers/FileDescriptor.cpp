#include "FileDescriptor.h"

#include <cerrno>
#include <unistd.h>

FileDescriptor::~FileDescriptor()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

// Linux closes the descriptor even when close is interrupted, so EINTR is no failure.
bool FileDescriptor::close()
{
    const int fd = m_fd;
    m_fd = -1;
    return ::close(fd) == 0 || errno == EINTR;
}

int FileDescriptor::writeAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : EIO;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}
