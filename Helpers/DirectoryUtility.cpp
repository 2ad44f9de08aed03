#include "DirectoryUtility.h"

#include "DirectoryWalker.h"
#include "ParallelWalk.h"

#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isFinderClutter(const char* name)
{
    return std::strcmp(name, ".DS_Store") == 0;
}

// The sums of one part of a tree: each thread of a walk adds up its own and hands them over once.
struct PartialMeasure {
    const std::atomic<bool>* stopCounting = nullptr;
    const std::atomic<bool>* abandon = nullptr;
    std::uint64_t size = 0;
    std::uint32_t count = 0; // unsigned so that the wrap is defined

    bool abandoned() const { return abandon && abandon->load(std::memory_order_relaxed); }

    WalkAction visit(const WalkEntry& entry)
    {
        if (abandoned())
            return WalkAction::Stop;
        if (stopCounting && stopCounting->load(std::memory_order_relaxed))
            return WalkAction::Continue;
        // A ".DS_Store" folder is itself skipped but still walked into, as the deep walk does.
        if (entry.isDirectory || isFinderClutter(entry.name) ||
            DirectoryUtility::isAliasFile(entry.parentFd, entry.name))
            return WalkAction::Continue;
        struct stat st {};
        if (::fstatat(entry.parentFd, entry.name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return WalkAction::Continue; // vanished since it was listed: not counted
        size += static_cast<std::uint64_t>(st.st_size);
        ++count;
        return WalkAction::Continue;
    }
};

} // namespace

FolderMeasure DirectoryUtility::sizeForDirectoryAtPath(const std::filesystem::path& path,
                                                       const std::atomic<bool>* stopCounting,
                                                       const std::atomic<bool>* abandon)
{
    std::atomic<std::uint64_t> totalSize{0};
    std::atomic<std::uint32_t> filesCount{0};
    auto add = [&](const PartialMeasure& part) {
        totalSize += part.size;
        filesCount += part.count;
    };
    PartialMeasure rootEntries{stopCounting, abandon};
    ParallelWalk::walk(
        path, [&](const WalkEntry& entry) { return rootEntries.visit(entry); },
        [&](int rootFd, const std::string& name) {
            PartialMeasure folder{stopCounting, abandon};
            // The folders found before the walk was abandoned are still handed out: each is let go
            // without being opened.
            if (folder.abandoned())
                return;
            DirectoryWalker::walk(rootFd, name, [&](const WalkEntry& entry) { return folder.visit(entry); });
            add(folder);
        });
    add(rootEntries);
    return FolderMeasure{totalSize.load(), static_cast<std::int32_t>(filesCount.load())};
}

bool DirectoryUtility::isAliasFile(int /*parentFd*/, const char* /*name*/)
{
    return false;
}
