#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

// The system's user database, behind a seam so that a test can script a missing entry.
class PasswordDatabase {
public:
    virtual ~PasswordDatabase() = default;
    // The home folder field of the user's entry, or nothing when the user has no entry.
    virtual std::optional<std::string> homeDirectoryOfUser(uid_t uid) const = 0;
};
