#include "BackupSpace.h"

#include "engine/FileIdentity.h"
#include "Helpers/DirectoryWalker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unordered_map>

namespace {

struct SharedFile {
    std::uint64_t bytes = 0;
    nlink_t names = 0;
    nlink_t namesHere = 0;
};

std::uint64_t allocatedBytes(const struct stat& status)
{
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

} // namespace

BackupSpace BackupSpace::measure(const std::filesystem::path& backupFolder, const std::atomic<bool>* stop)
{
    BackupSpace space;
    struct stat root {};
    if (::lstat(backupFolder.c_str(), &root) != 0 || !S_ISDIR(root.st_mode)) {
        space.complete = false;
        return space;
    }
    space.onItsOwn = space.freedByDeleting = allocatedBytes(root);
    // Files with one name are settled at once; only those with several wait for the end of the walk.
    std::unordered_map<FileIdentity, SharedFile, FileIdentity::Hash> shared;
    const bool walked = DirectoryWalker::walk(
        backupFolder,
        [&](const WalkEntry& entry) {
            if (stop && stop->load(std::memory_order_relaxed)) {
                space.complete = false;
                return WalkAction::Stop;
            }
            struct stat status {};
            if (::fstatat(entry.parentFd, entry.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                return WalkAction::Continue;
            if (S_ISDIR(status.st_mode) || status.st_nlink < 2) {
                space.onItsOwn += allocatedBytes(status);
                space.freedByDeleting += allocatedBytes(status);
                return WalkAction::Continue;
            }
            SharedFile& file = shared[FileIdentity::of(status)];
            file.bytes = allocatedBytes(status);
            file.names = status.st_nlink;
            ++file.namesHere;
            return WalkAction::Continue;
        },
        [&](const FsError&) { space.complete = false; });
    space.complete = space.complete && walked;
    for (const auto& [key, file] : shared) {
        space.onItsOwn += file.bytes;
        if (file.namesHere >= file.names)
            space.freedByDeleting += file.bytes;
    }
    return space;
}
