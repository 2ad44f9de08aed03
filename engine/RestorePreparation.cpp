#include "RestorePreparation.h"

#include "Helpers/DirectoryUtility.h"
#include "Helpers/DirectoryWalker.h"
#include "Helpers/FileDescriptor.h"
#include "Helpers/FolderNames.h"
#include "Helpers/ItemRemover.h"
#include "Helpers/ParallelWalk.h"
#include "Trash.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>
#include <vector>

namespace {

// Only these say that the other tree lacks the item; any other failure says nothing about it.
bool meansAbsent(int code)
{
    return code == ENOENT || code == ENOTDIR;
}

// What the other tree has at an entry's place.
struct Counterpart {
    enum class Kind { Found, Absent, Unknown };
    Kind kind = Kind::Absent;
    struct stat status {};
    // Unknown: the call that failed and its errno. When it was the folder holding the entry that could
    // not be opened, that folder was reported already, once for all its entries.
    const char* operation = nullptr;
    int code = 0;
    bool inUnreadableFolder = false;
};

// The folder at the same relative place in the other tree, kept open while the walk reads the folders
// of one branch, so that each entry is looked up relative to it instead of by a whole path. Opened one
// component at a time without following links, like the walk itself: a link in the other tree is
// never taken for a folder, and paths longer than PATH_MAX work.
class CounterpartFolder {
public:
    // Told once about each folder of the other tree that could not be opened for a reason other than
    // its absence, with its path relative to the root ("" for the root itself).
    using UnreadableFolder = std::function<void(const std::string& relative, int code)>;

    // Takes over `rootFd`, the other tree's folder where the walk starts; -1 with the errno of its
    // opening when there is none.
    explicit CounterpartFolder(int rootFd, int rootError = 0, UnreadableFolder onUnreadable = {})
        : m_rootFd(rootFd)
        , m_rootError(rootFd < 0 ? rootError : 0)
        , m_onUnreadable(std::move(onUnreadable))
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

    Counterpart statusOf(const WalkEntry& entry)
    {
        Counterpart counterpart;
        const auto [folder, error] = folderFor(entry.relativeFolder);
        if (folder < 0) {
            if (!meansAbsent(error)) {
                counterpart.kind = Counterpart::Kind::Unknown;
                counterpart.operation = "openat";
                counterpart.code = error;
                counterpart.inUnreadableFolder = true;
            }
            return counterpart;
        }
        if (::fstatat(folder, entry.name, &counterpart.status, AT_SYMLINK_NOFOLLOW) == 0) {
            counterpart.kind = Counterpart::Kind::Found;
        } else if (!meansAbsent(errno)) {
            counterpart.kind = Counterpart::Kind::Unknown;
            counterpart.operation = "fstatat";
            counterpart.code = errno;
        }
        return counterpart;
    }

    // Whether the other tree has an item of any kind at the entry's place. Each of its folders is listed
    // once, when first asked about, instead of asking for every name.
    bool contains(const WalkEntry& entry)
    {
        const int folder = folderFor(entry.relativeFolder).first;
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
        int fd;    // -1: no folder could be opened here
        int error; // why not; a folder above that failed passes its error down
        std::optional<FolderNames> names = {};
    };

    std::pair<int, int> folderFor(const std::string& relative)
    {
        if (relative != m_relative || !m_placed)
            moveTo(relative);
        if (m_levels.empty())
            return {m_rootFd, m_rootError};
        return {m_levels.back().fd, m_levels.back().error};
    }

    // Keeps the levels the new place shares with the old one and opens the rest.
    void moveTo(const std::string& relative)
    {
        if (!m_placed && m_rootFd < 0)
            reportUnreadable({}, m_rootError);
        m_placed = true;
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
            if (parent < 0) {
                m_levels.push_back({names[i], -1, i == 0 ? m_rootError : m_levels[i - 1].error});
                continue;
            }
            const int fd =
                ::openat(parent, names[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            const int error = fd < 0 ? errno : 0;
            m_levels.push_back({names[i], fd, error});
            if (fd < 0)
                reportUnreadable(relative.substr(0, std::min(relative.size(), relativeLength(names, i))),
                                 error);
        }
    }

    static std::size_t relativeLength(const std::vector<std::string>& names, std::size_t last)
    {
        std::size_t length = last;
        for (std::size_t i = 0; i <= last; ++i)
            length += names[i].size();
        return length;
    }

    void reportUnreadable(const std::string& relative, int code)
    {
        if (m_onUnreadable && !meansAbsent(code))
            m_onUnreadable(relative, code);
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
    int m_rootError;
    UnreadableFolder m_onUnreadable;
    bool m_placed = false;
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
bool keepsFile(const WalkEntry& entry, const Counterpart& counterpart)
{
    if (counterpart.kind != Counterpart::Kind::Found)
        return false;
    const std::optional<struct stat> live = entryStatus(entry.parentFd, entry.name);
    return live && sameModificationTime(*live, counterpart.status);
}

// The items the backup never held, and the folders on the way to them: a restore must not take what it
// has no copy of to put back.
class NeverPrune {
public:
    explicit NeverPrune(const std::vector<std::filesystem::path>& paths)
    {
        for (const std::filesystem::path& path : paths) {
            std::string item = path.lexically_normal().native();
            while (!item.empty() && item.back() == '/')
                item.pop_back();
            if (item.empty() || item == ".") {
                m_everything = true; // the backup folder itself could not be read
                continue;
            }
            if (item.front() == '/' || item == ".." || item.starts_with("../"))
                continue; // names nothing in the live folder
            for (std::size_t slash = item.find('/'); slash != std::string::npos;
                 slash = item.find('/', slash + 1))
                m_holders.insert(item.substr(0, slash));
            m_listed.insert(std::move(item));
        }
    }

    bool everything() const { return m_everything; }
    bool empty() const { return m_listed.empty(); }
    bool isListed(const std::string& relative) const { return m_listed.contains(relative); }
    bool holdsListed(const std::string& relative) const { return m_holders.contains(relative); }

private:
    bool m_everything = false;
    std::unordered_set<std::string> m_listed;
    std::unordered_set<std::string> m_holders;
};

// What all threads of one prune share, read only.
struct PruneRun {
    const std::atomic<bool>& canceled;
    Trash* trash;
    const NeverPrune& neverPrune;
    std::filesystem::path liveRoot; // where the live folder really is: what the Trash records
    bool listOnly;
};

// The prune of one part of the live folder, on one thread: it collects its own outcome, so that the
// threads share nothing but the Trash while they work.
class Pruner {
public:
    Pruner(const PruneRun& run, std::string prefix)
        : m_run(run)
        , m_prefix(std::move(prefix))
    {
    }

    WalkAction visit(const WalkEntry& entry, CounterpartFolder& backup)
    {
        if (m_run.canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (entry.name[0] == '.')
            return WalkAction::SkipDescendants; // hidden: neither touched nor entered
        if (DirectoryUtility::isAliasFile(entry.parentFd, entry.name)) {
            remove(entry, false);
            return WalkAction::SkipDescendants;
        }
        const bool guarded = !m_run.neverPrune.empty();
        // A folder the backup never held may still have a (partly made) folder there in the backup:
        // what is inside must not be judged by it.
        if (entry.isDirectory && guarded && m_run.neverPrune.isListed(relativePath(entry)))
            return WalkAction::SkipDescendants;
        const Counterpart counterpart = backup.statusOf(entry);
        if (counterpart.kind == Counterpart::Kind::Unknown) {
            if (!counterpart.inUnreadableFolder)
                outcome.kept.push_back({counterpart.operation, relativePath(entry), counterpart.code});
            return WalkAction::SkipDescendants;
        }
        if (entry.isDirectory) {
            if (counterpart.kind == Counterpart::Kind::Found && S_ISDIR(counterpart.status.st_mode))
                return WalkAction::Continue;
            if (guarded && m_run.neverPrune.holdsListed(relativePath(entry)))
                return WalkAction::Continue;
            remove(entry, counterpart.kind == Counterpart::Kind::Found);
            return WalkAction::SkipDescendants;
        }
        if (!keepsFile(entry, counterpart) && !(guarded && m_run.neverPrune.isListed(relativePath(entry))))
            remove(entry, counterpart.kind == Counterpart::Kind::Found);
        return WalkAction::Continue;
    }

    void keepUnreadable(const std::string& relativeFolder, int code)
    {
        outcome.kept.push_back({"openat", join(m_prefix, relativeFolder), code});
    }

    PruneOutcome outcome;

private:
    static std::string join(const std::string& folder, std::string_view name)
    {
        if (folder.empty())
            return std::string(name);
        if (name.empty())
            return folder;
        std::string path = folder;
        path += '/';
        path += name;
        return path;
    }

    std::string relativePath(const WalkEntry& entry) const
    {
        return join(join(m_prefix, entry.relativeFolder), entry.name);
    }

    void remove(const WalkEntry& entry, bool inBackup)
    {
        const std::string relative = relativePath(entry);
        if (m_run.listOnly) {
            const std::optional<struct stat> status = entryStatus(entry.parentFd, entry.name);
            outcome.wouldGo.push_back(
                {ComparedItem{relative,
                              entry.isDirectory || !status ? 0 : static_cast<std::uint64_t>(status->st_size),
                              entry.isDirectory},
                 inBackup});
            return;
        }
        std::optional<FsError> failure;
        if (m_run.trash) {
            failure = m_run.trash->moveToTrash(entry.parentFd, entry.name, m_run.liveRoot / relative);
            if (!failure) {
                ++outcome.trashed;
                return;
            }
            if (failure->code != Trash::kNoTrash) {
                noteFailure(entry, relative, *failure);
                return;
            }
            const FsError noTrash{failure->operation, relative, failure->code};
            failure = removeForGood(entry);
            if (!failure) {
                outcome.removedForGood.push_back(noTrash);
                return;
            }
        } else {
            failure = removeForGood(entry);
        }
        if (failure)
            noteFailure(entry, relative, *failure);
    }

    static std::optional<FsError> removeForGood(const WalkEntry& entry)
    {
        if (entry.isDirectory)
            return ItemRemover::removeItemAt(entry.parentFd, entry.name);
        if (::unlinkat(entry.parentFd, entry.name, 0) != 0)
            return FsError{"unlinkat", entry.name, errno};
        return std::nullopt;
    }

    // An item that vanished since it was listed has gone as it should.
    void noteFailure(const WalkEntry& entry, const std::string& relative, const FsError& failure)
    {
        if (failure.code == ENOENT && !entryStatus(entry.parentFd, entry.name))
            return;
        outcome.notRemoved.push_back({failure.operation, relative, failure.code});
    }

    const PruneRun& m_run;
    std::string m_prefix; // the top-level folder this pruner walks, "" for the live folder's own entries
};

void merge(PruneOutcome& into, PruneOutcome&& part)
{
    into.trashed += part.trashed;
    into.wouldGo.insert(into.wouldGo.end(), std::make_move_iterator(part.wouldGo.begin()),
                        std::make_move_iterator(part.wouldGo.end()));
    for (auto [list, from] :
         {std::pair{&into.removedForGood, &part.removedForGood}, std::pair{&into.kept, &part.kept},
          std::pair{&into.notRemoved, &part.notRemoved}})
        list->insert(list->end(), std::make_move_iterator(from->begin()),
                     std::make_move_iterator(from->end()));
}

// Whether the folder can be read to its end: a backup that cannot vouch for anything must not be
// compared with at all.
bool listsWhole(int folderFd)
{
    if (folderFd < 0)
        return false;
    std::vector<char> buffer(32 * 1024);
    for (;;) {
        const ssize_t got = ::getdents64(folderFd, buffer.data(), buffer.size());
        if (got == 0)
            return ::lseek(folderFd, 0, SEEK_SET) == 0;
        if (got < 0)
            return false;
    }
}

std::filesystem::path reallyAt(const std::filesystem::path& path)
{
    if (char* resolved = ::realpath(path.c_str(), nullptr)) {
        std::filesystem::path real(resolved);
        std::free(resolved);
        return real;
    }
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? path : absolute;
}

struct Tally {
    std::atomic<std::uint64_t> size{0};
    std::atomic<std::uint32_t> count{0}; // unsigned so that the wrap is defined
};

// Whether the copy back would create this backup item: nothing is at its place in the live folder.
bool comesBack(const WalkEntry& entry, CounterpartFolder& live)
{
    return std::strcmp(entry.name, ".DS_Store") != 0 &&
           !DirectoryUtility::isAliasFile(entry.parentFd, entry.name) && !live.contains(entry);
}

void countEntry(const WalkEntry& entry, CounterpartFolder& live, Tally& tally)
{
    if (!comesBack(entry, live))
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
// `other` (which may be missing) and the top-level folder the entry's relative path starts from ("" for
// the root's own entries). Top-level folders are not entered once the user has cancelled.
void walkAlongside(
    const std::filesystem::path& root, const std::filesystem::path& other, const std::atomic<bool>& canceled,
    const std::function<WalkAction(const WalkEntry&, CounterpartFolder&, const std::string&)>& visit)
{
    const FileDescriptor otherRoot(openRoot(other));
    CounterpartFolder otherFolder(::dup(otherRoot.get()));
    ParallelWalk::walk(
        root, [&](const WalkEntry& entry) { return visit(entry, otherFolder, {}); },
        [&](int rootFd, const std::string& name) {
            if (canceled.load())
                return;
            CounterpartFolder otherSubfolder(openSubfolder(otherRoot.get(), name));
            DirectoryWalker::walk(rootFd, name,
                                  [&](const WalkEntry& entry) { return visit(entry, otherSubfolder, name); });
        });
}

} // namespace

PruneOutcome RestorePreparation::pruneLiveFolder(const std::filesystem::path& live,
                                                 const std::filesystem::path& backup,
                                                 const std::atomic<bool>& canceled,
                                                 const PruneOptions& options)
{
    PruneOutcome outcome;
    const FileDescriptor backupRoot(openRoot(backup));
    if (!listsWhole(backupRoot.get())) {
        outcome.backupReadable = false;
        return outcome;
    }
    const NeverPrune neverPrune(options.neverPrune);
    if (neverPrune.everything())
        return outcome;
    const PruneRun run{canceled, options.trash, neverPrune, options.trash ? reallyAt(live) : live,
                       options.listOnly};

    Pruner rootPruner(run, {});
    CounterpartFolder backupFolder(::dup(backupRoot.get()));
    std::mutex merging;
    ParallelWalk::walk(
        live, [&](const WalkEntry& entry) { return rootPruner.visit(entry, backupFolder); },
        [&](int rootFd, const std::string& name) {
            if (canceled.load())
                return;
            Pruner pruner(run, name);
            const int subfolderFd = openSubfolder(backupRoot.get(), name);
            CounterpartFolder backupSubfolder(subfolderFd, errno, [&](const std::string& relative, int code) {
                pruner.keepUnreadable(relative, code);
            });
            DirectoryWalker::walk(
                rootFd, name, [&](const WalkEntry& entry) { return pruner.visit(entry, backupSubfolder); });
            const std::lock_guard lock(merging);
            merge(outcome, std::move(pruner.outcome));
        });
    merge(outcome, std::move(rootPruner.outcome));
    return outcome;
}

RestoreTotals RestorePreparation::measureFilesToCopy(const std::filesystem::path& backup,
                                                     const std::filesystem::path& live,
                                                     const std::atomic<bool>& canceled)
{
    Tally tally;
    auto visit = [&](const WalkEntry& entry, CounterpartFolder& liveFolder, const std::string&) {
        if (canceled.load(std::memory_order_relaxed))
            return WalkAction::Stop;
        if (!entry.isDirectory)
            countEntry(entry, liveFolder, tally);
        return WalkAction::Continue;
    };
    walkAlongside(backup, live, canceled, visit);
    return RestoreTotals{tally.size.load(), static_cast<std::int32_t>(tally.count.load())};
}

Comparison RestorePreparation::compare(const std::filesystem::path& live, const std::filesystem::path& backup,
                                       const std::atomic<bool>& canceled,
                                       const std::vector<std::filesystem::path>& neverPrune)
{
    Comparison comparison;
    PruneOutcome going = pruneLiveFolder(live, backup, canceled, PruneOptions{nullptr, true, neverPrune});
    comparison.backupReadable = going.backupReadable;
    if (!going.backupReadable)
        return comparison;
    for (auto& [item, inBackup] : going.wouldGo)
        (inBackup ? comparison.changed : comparison.added).push_back(std::move(item));
    std::mutex listing;
    walkAlongside(backup, live, canceled,
                  [&](const WalkEntry& entry, CounterpartFolder& liveFolder, const std::string& prefix) {
                      if (canceled.load(std::memory_order_relaxed))
                          return WalkAction::Stop;
                      if (entry.isDirectory || !comesBack(entry, liveFolder))
                          return WalkAction::Continue;
                      const std::optional<struct stat> item = entryStatus(entry.parentFd, entry.name);
                      const std::lock_guard lock(listing);
                      comparison.removed.push_back(
                          {prefix.empty() ? entry.relativePath().native()
                                          : (std::filesystem::path(prefix) / entry.relativePath()).native(),
                           item ? static_cast<std::uint64_t>(item->st_size) : 0, false});
                      return WalkAction::Continue;
                  });
    for (std::vector<ComparedItem>* group : {&comparison.added, &comparison.changed, &comparison.removed})
        std::sort(group->begin(), group->end(),
                  [](const ComparedItem& a, const ComparedItem& b) { return a.path < b.path; });
    return comparison;
}
