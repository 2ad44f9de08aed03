#include "UnfinishedMark.h"

#include "engine/NotCopiedList.h"
#include "Helpers/ItemRemover.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::string_view kSuffix = ".unfinished";

std::filesystem::path withoutTrailingSlash(const std::filesystem::path& folder)
{
    return folder.has_filename() ? folder : folder.parent_path();
}

void syncFolder(const std::filesystem::path& folder)
{
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace

std::filesystem::path UnfinishedMark::pathFor(const std::filesystem::path& backupFolder)
{
    return std::filesystem::path(withoutTrailingSlash(backupFolder).native() + std::string(kSuffix));
}

std::optional<FsError> UnfinishedMark::set(const std::filesystem::path& backupFolder)
{
    const std::filesystem::path mark = pathFor(backupFolder);
    const int fd = ::open(mark.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return FsError{"open", mark, errno};
    const bool synced = ::fsync(fd) == 0;
    const int error = errno;
    ::close(fd);
    if (!synced)
        return FsError{"fsync", mark, error};
    syncFolder(withoutTrailingSlash(backupFolder).parent_path());
    return std::nullopt;
}

void UnfinishedMark::clear(const std::filesystem::path& backupFolder)
{
    ::unlink(pathFor(backupFolder).c_str());
}

std::vector<std::filesystem::path> UnfinishedMark::markedFolders(const std::filesystem::path& root)
{
    std::vector<std::filesystem::path> folders;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(root.c_str()), &::closedir);
    if (!listing)
        return folders;
    while (const dirent* entry = ::readdir(listing.get())) {
        const std::string_view name(entry->d_name);
        if (name.size() <= kSuffix.size() || !name.ends_with(kSuffix))
            continue;
        folders.push_back(root / std::string(name.substr(0, name.size() - kSuffix.size())));
    }
    return folders;
}

std::optional<FsError> UnfinishedMark::sweep(const std::filesystem::path& backupFolder, bool recorded)
{
    if (!recorded) {
        std::optional<FsError> error = ItemRemover::removeItemAtPath(backupFolder);
        if (error && error->code != ENOENT)
            return error;
        NotCopiedList::remove(backupFolder);
    }
    clear(backupFolder);
    return std::nullopt;
}
