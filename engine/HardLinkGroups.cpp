#include "HardLinkGroups.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

HardLinkGroups::HardLinkGroups(std::filesystem::path destinationRoot)
    : m_destinationRoot(std::move(destinationRoot))
{
}

bool HardLinkGroups::linkToEarlierCopy(const struct stat& source, int destinationParentFd, const char* name)
{
    const auto found = m_copies.find(FileIdentity::of(source));
    if (found == m_copies.end())
        return false;
    Copy& copy = found->second;
    const std::filesystem::path earlier = m_destinationRoot / copy.relativePath;
    bool linked = earlier.native().size() < PATH_MAX &&
                  ::linkat(AT_FDCWD, earlier.c_str(), destinationParentFd, name, 0) == 0;
    if (linked) {
        struct stat made {};
        if (::fstatat(destinationParentFd, name, &made, AT_SYMLINK_NOFOLLOW) != 0 ||
            made.st_ino != copy.inode) {
            // The path led to another file: the name, made exclusively a moment ago, is ours to remove.
            ::unlinkat(destinationParentFd, name, 0);
            linked = false;
        }
    }
    if (--copy.namesToCome == 0)
        m_copies.erase(found);
    return linked;
}

void HardLinkGroups::remember(const struct stat& source, int destinationParentFd, const char* name,
                              std::string relativePath)
{
    if (source.st_nlink < 2 || m_copies.size() >= kMaxRemembered)
        return;
    struct stat copy {};
    if (::fstatat(destinationParentFd, name, &copy, AT_SYMLINK_NOFOLLOW) != 0)
        return;
    m_copies.emplace(FileIdentity::of(source),
                     Copy{std::move(relativePath), copy.st_ino, source.st_nlink - 1});
}
