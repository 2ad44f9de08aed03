#include "RestorePreparation.h"

#include "Helpers/DirectoryUtility.h"
#include "Helpers/DirectoryWalker.h"
#include "Helpers/ItemRemover.h"

#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace {

std::optional<struct stat> itemStatus(const std::filesystem::path& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return std::nullopt;
    return st;
}

std::optional<struct stat> entryStatus(int parentFd, const char* name)
{
    struct stat st {};
    if (::fstatat(parentFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return st;
}

bool sameModificationTime(const struct stat& a, const struct stat& b)
{
    return a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Whether a live non-folder item is the backup's item at the same place, judged by its time alone.
bool keepsFile(const WalkEntry& entry, const std::optional<struct stat>& counterpart)
{
    if (!counterpart)
        return false;
    const std::optional<struct stat> live = entryStatus(entry.parentFd, entry.name);
    return live && sameModificationTime(*live, *counterpart);
}

WalkAction pruneEntry(const WalkEntry& entry, const std::filesystem::path& backup)
{
    if (DirectoryUtility::isAliasFile(entry.parentFd, entry.name)) {
        ItemRemover::removeItemAt(entry.parentFd, entry.name);
        return WalkAction::SkipDescendants;
    }
    const std::optional<struct stat> counterpart = itemStatus(backup / entry.relativePath());
    if (entry.isDirectory) {
        if (counterpart && S_ISDIR(counterpart->st_mode))
            return WalkAction::Continue;
        ItemRemover::removeItemAt(entry.parentFd, entry.name);
        return WalkAction::SkipDescendants;
    }
    if (!keepsFile(entry, counterpart))
        ::unlinkat(entry.parentFd, entry.name, 0);
    return WalkAction::Continue;
}

} // namespace

void RestorePreparation::pruneLiveFolder(const std::filesystem::path& live, const std::filesystem::path& backup,
                                         const std::atomic<bool>& canceled)
{
    DirectoryWalker::walk(live, [&](const WalkEntry& entry) {
        if (canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (entry.name[0] == '.')
            return WalkAction::SkipDescendants; // hidden: neither touched nor entered
        return pruneEntry(entry, backup);
    });
}

RestoreTotals RestorePreparation::measureFilesToCopy(const std::filesystem::path& backup,
                                                     const std::filesystem::path& live,
                                                     const std::atomic<bool>& canceled)
{
    std::uint64_t totalSize = 0;
    std::uint32_t totalCount = 0; // unsigned so that the wrap is defined
    DirectoryWalker::walk(backup, [&](const WalkEntry& entry) {
        if (canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (entry.isDirectory || std::strcmp(entry.name, ".DS_Store") == 0 ||
            DirectoryUtility::isAliasFile(entry.parentFd, entry.name))
            return WalkAction::Continue;
        if (itemStatus(live / entry.relativePath()))
            return WalkAction::Continue;
        const std::optional<struct stat> item = entryStatus(entry.parentFd, entry.name);
        if (!item)
            return WalkAction::Continue; // vanished from the backup meanwhile: it cannot be copied either
        ++totalCount;
        totalSize += static_cast<std::uint64_t>(item->st_size);
        return WalkAction::Continue;
    });
    return RestoreTotals{totalSize, static_cast<std::int32_t>(totalCount)};
}
