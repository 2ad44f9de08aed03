#include "PosixPasswordDatabase.h"

#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

std::optional<std::string> PosixPasswordDatabase::homeDirectoryOfUser(uid_t uid) const
{
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    struct passwd entry {};
    struct passwd* found = nullptr;
    int rc = 0;
    // getpwuid_r instead of getpwuid: the result must not live in storage another thread can overwrite.
    while ((rc = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (rc != 0 || !found || !found->pw_dir)
        return std::nullopt;
    return std::string(found->pw_dir);
}
