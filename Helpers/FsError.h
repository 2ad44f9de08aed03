#pragma once

#include <filesystem>
#include <string>

// A failed file-system call, kept as a value: callers decide whether to pass over it, count it or
// report it. Nothing in the engine throws.
struct FsError {
    std::string operation; // the POSIX call that failed, e.g. "openat"
    std::filesystem::path path;
    int code = 0; // errno

    std::string describe() const;
};
