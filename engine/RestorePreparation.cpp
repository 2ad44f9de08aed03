#include "RestorePreparation.h"

#include "Helpers/DirectoryUtility.h"
#include "Helpers/DirectoryWalker.h"
#include "Helpers/FileDescriptor.h"
#include "Helpers/FolderNames.h"
#include "Helpers/ItemRemover.h"
#include "Helpers/ParallelWalk.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// The folder at the same relative place in the other tree, kept open while the walk reads the folders
// of one branch, so that each entry is looked up relative to it instead of by a whole path. Opened one
// component at a time without following links, like the walk itself: a link in the other tree is
// never taken for a folder, and paths longer than PATH_MAX work.
class CounterpartFolder {
public:
    // Takes over `rootFd`, the other tree's folder where the walk starts (-1: there is none).
    explicit CounterpartFolder(int rootFd)
        : m_rootFd(rootFd)
    {
    }
    ~CounterpartFolder()
    {
        closeFrom(0);
        if (m_rootFd >= 0)
            ::close(m_rootFd);
    }
    CounterpartFolder(const CounterpartFolder&) = delete;
    CounterpartFolder& operator=(const CounterpartFolder&) = delete;

    // The status of the other tree's item at the entry's place, or nothing when there is none.
    std::optional<struct stat> statusOf(const WalkEntry& entry)
    {
        const int folder = folderFor(entry.relativeFolder);
        struct stat st {};
        if (folder < 0 || ::fstatat(folder, entry.name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return std::nullopt;
        return st;
    }

    // Whether the other tree has an item of any kind at the entry's place. Each of its folders is listed
    // once, when first asked about, instead of asking for every name.
    bool contains(const WalkEntry& entry)
    {
        const int folder = folderFor(entry.relativeFolder);
        if (folder < 0)
            return false;
        std::optional<FolderNames>& names = m_levels.empty() ? m_rootNames : m_levels.back().names;
        if (!names)
            names.emplace(folder);
        return names->contains(folder, entry.name);
    }

private:
    struct Level {
        std::string name;
        int fd; // -1: there is no folder of that name here
        std::optional<FolderNames> names = {};
    };

    int folderFor(const std::string& relative)
    {
        if (relative != m_relative)
            moveTo(relative);
        return m_levels.empty() ? m_rootFd : m_levels.back().fd;
    }

    // Keeps the levels the new place shares with the old one and opens the rest.
    void moveTo(const std::string& relative)
    {
        m_relative = relative;
        std::vector<std::string> names;
        for (std::size_t start = 0; start < relative.size();) {
            const std::size_t end = std::min(relative.find('/', start), relative.size());
            names.emplace_back(relative, start, end - start);
            start = end + 1;
        }
        std::size_t shared = 0;
        while (shared < names.size() && shared < m_levels.size() && m_levels[shared].name == names[shared])
            ++shared;
        closeFrom(shared);
        for (std::size_t i = shared; i < names.size(); ++i) {
            const int parent = i == 0 ? m_rootFd : m_levels[i - 1].fd;
            const int fd = parent < 0 ? -1
                                      : ::openat(parent, names[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            m_levels.push_back({names[i], fd});
        }
    }

    void closeFrom(std::size_t index)
    {
        for (std::size_t i = index; i < m_levels.size(); ++i) {
            if (m_levels[i].fd >= 0)
                ::close(m_levels[i].fd);
        }
        m_levels.resize(std::min(index, m_levels.size()));
    }

    int m_rootFd;
    std::optional<FolderNames> m_rootNames;
    std::string m_relative;
    std::vector<Level> m_levels;
};

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

WalkAction pruneEntry(const WalkEntry& entry, CounterpartFolder& backup)
{
    if (DirectoryUtility::isAliasFile(entry.parentFd, entry.name)) {
        ItemRemover::removeItemAt(entry.parentFd, entry.name);
        return WalkAction::SkipDescendants;
    }
    const std::optional<struct stat> counterpart = backup.statusOf(entry);
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

struct Tally {
    std::atomic<std::uint64_t> size{0};
    std::atomic<std::uint32_t> count{0}; // unsigned so that the wrap is defined
};

void countEntry(const WalkEntry& entry, CounterpartFolder& live, Tally& tally)
{
    if (std::strcmp(entry.name, ".DS_Store") == 0 || DirectoryUtility::isAliasFile(entry.parentFd, entry.name))
        return;
    if (live.contains(entry))
        return;
    const std::optional<struct stat> item = entryStatus(entry.parentFd, entry.name);
    if (!item)
        return; // vanished from the backup meanwhile: it cannot be copied either
    tally.count.fetch_add(1, std::memory_order_relaxed);
    tally.size.fetch_add(static_cast<std::uint64_t>(item->st_size), std::memory_order_relaxed);
}

int openRoot(const std::filesystem::path& root)
{
    return ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int openSubfolder(int rootFd, const std::string& name)
{
    return rootFd < 0 ? -1 : ::openat(rootFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Walks `root` on every core with `visit`, which gets, with each entry, the folder at the same place in
// `other` (which may be missing). Top-level folders are not entered once the user has cancelled.
void walkAlongside(const std::filesystem::path& root, const std::filesystem::path& other,
                   const std::atomic<bool>& canceled,
                   const std::function<WalkAction(const WalkEntry&, CounterpartFolder&)>& visit)
{
    const FileDescriptor otherRoot(openRoot(other));
    CounterpartFolder otherFolder(::dup(otherRoot.get()));
    ParallelWalk::walk(
        root, [&](const WalkEntry& entry) { return visit(entry, otherFolder); },
        [&](int rootFd, const std::string& name) {
            if (canceled.load())
                return;
            CounterpartFolder otherSubfolder(openSubfolder(otherRoot.get(), name));
            DirectoryWalker::walk(rootFd, name, [&](const WalkEntry& entry) { return visit(entry, otherSubfolder); });
        });
}

} // namespace

void RestorePreparation::pruneLiveFolder(const std::filesystem::path& live, const std::filesystem::path& backup,
                                         const std::atomic<bool>& canceled)
{
    auto visit = [&](const WalkEntry& entry, CounterpartFolder& backupFolder) {
        if (canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (entry.name[0] == '.')
            return WalkAction::SkipDescendants; // hidden: neither touched nor entered
        return pruneEntry(entry, backupFolder);
    };
    walkAlongside(live, backup, canceled, visit);
}

RestoreTotals RestorePreparation::measureFilesToCopy(const std::filesystem::path& backup,
                                                     const std::filesystem::path& live,
                                                     const std::atomic<bool>& canceled)
{
    Tally tally;
    auto visit = [&](const WalkEntry& entry, CounterpartFolder& liveFolder) {
        if (canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (!entry.isDirectory)
            countEntry(entry, liveFolder, tally);
        return WalkAction::Continue;
    };
    walkAlongside(backup, live, canceled, visit);
    return RestoreTotals{tally.size.load(), static_cast<std::int32_t>(tally.count.load())};
}
