#pragma once

#include <cstddef>

// Owns one open file descriptor and closes it on every way out of a scope, so that steps can return
// early. -1 stands for none.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd)
        : m_fd(fd)
    {
    }
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return m_fd; }

    // Closes now and tells whether that went well: some file systems report a failed write only here.
    bool close();

    // Writes all of `data` to `fd`, going on after short writes and interruptions: 0, or the errno of
    // the write that failed (EIO for one that wrote nothing).
    static int writeAll(int fd, const char* data, std::size_t size);

private:
    int m_fd;
};
