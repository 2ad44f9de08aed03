#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <unistd.h>

// The system's user database, behind a seam so that a test can script a missing entry.
class PasswordDatabase {
public:
    virtual ~PasswordDatabase() = default;
    // The home folder field of the user's entry, or nothing when the user has no entry.
    virtual std::optional<std::string> homeDirectoryOfUser(uid_t uid) const = 0;

    // The home folder of the process's real user, not $HOME: the environment can point elsewhere, while
    // this must name the folder that holds the user's documents. Nothing when the user has no entry:
    // then no folder can be taken for the home folder.
    std::optional<std::string> realHomeDirectory() const { return homeDirectoryOfUser(::getuid()); }
};
