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
