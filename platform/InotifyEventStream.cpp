#include "InotifyEventStream.h"

#include <QFile>
#include <QObject>
#include <QSocketNotifier>
#include <QThread>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kContentEvents
    = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE;
constexpr std::uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
// IN_EXCL_UNLINK: a file deleted while still open would otherwise go on reporting its writes.
constexpr std::uint32_t kWatchMask
    = kContentEvents | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;
constexpr std::size_t kReadBufferSize = 64 * 1024;
// A storm of events must not starve the rest of the loop: the notifier comes back for the remainder.
constexpr int kReadsPerWakeUp = 16;

std::string childPath(const std::string& folder, const char* name)
{
    std::string path;
    path.reserve(folder.size() + 1 + std::strlen(name));
    path += folder;
    if (path.back() != '/')
        path += '/';
    path += name;
    return path;
}

// Folders that were gone, or had become links, before the walk reached them: nothing to watch there,
// and whatever replaced them is reported through their parent.
bool meansFolderGone(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

QString reasonText(int error)
{
    if (error == ENOSPC)
        return QStringLiteral("the inotify watch limit was reached (fs.inotify.max_user_watches)");
    if (error == EMFILE || error == ENFILE)
        return QStringLiteral("no file descriptor was left");
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

std::unique_ptr<InotifyEventStream> InotifyEventStream::create(const QStringList& paths,
                                                               double latencySeconds, Callback callback)
{
    return create(paths, latencySeconds, std::move(callback), Limits{});
}

std::unique_ptr<InotifyEventStream> InotifyEventStream::create(const QStringList& paths,
                                                               double latencySeconds, Callback callback,
                                                               Limits limits)
{
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0)
        return nullptr;
    return std::unique_ptr<InotifyEventStream>(
        new InotifyEventStream(fd, paths, latencySeconds, std::move(callback), limits));
}

InotifyEventStream::InotifyEventStream(int fd, const QStringList& paths, double latencySeconds,
                                       Callback callback, Limits limits)
    : ScheduledEventStream(paths, latencySeconds, std::move(callback))
    , m_fd(fd)
    , m_limits(limits)
    , m_buffer(kReadBufferSize)
{
    for (const std::string& path : rootPaths())
        m_roots.push_back(Root{path, -1});
}

InotifyEventStream::~InotifyEventStream()
{
    // The notifier must let go of the descriptor before it is closed.
    release();
    ::close(m_fd);
}

bool InotifyEventStream::beginWatching()
{
    // Left over from an earlier run: their watches are gone, and so is their meaning.
    drainEvents();
    m_unwatchedFolders = 0;
    m_unwatchedExample.clear();
    watchRoots();
    enableNotifier();
    for (const Root& root : m_roots) {
        if (root.wd >= 0)
            return true;
    }
    return false;
}

void InotifyEventStream::endWatching()
{
    m_watchByPath.clear();
    for (const auto& [wd, path] : m_folders)
        ::inotify_rm_watch(m_fd, wd);
    m_folders.clear();
    for (Root& root : m_roots)
        root.wd = -1;
}

void InotifyEventStream::collectChanges()
{
    // Everything the kernel holds, however much: a flush promises all of it.
    for (;;) {
        const ssize_t got = ::read(m_fd, m_buffer.data(), m_buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return;
        handleEvents(static_cast<std::size_t>(got));
    }
}

void InotifyEventStream::loopDetached()
{
    if (m_notifier && m_notifier->thread() == QThread::currentThread())
        m_notifier->setEnabled(false);
    m_notifier = nullptr;
}

QString InotifyEventStream::backendName() const
{
    return QStringLiteral("inotify");
}

QString InotifyEventStream::coverageDescription() const
{
    const QString watched = QStringLiteral("%1 folders watched").arg(m_folders.size());
    if (m_unwatchedFolders == 0)
        return watched;
    const QString example = QFile::decodeName(QByteArray::fromStdString(m_unwatchedExample));
    return watched
           + QStringLiteral("; %1 folders not watched (one of them: \"%2\"): %3")
                 .arg(m_unwatchedFolders)
                 .arg(example, reasonText(m_unwatchedError));
}

bool InotifyEventStream::enterFolder(int fd, const std::string& path)
{
    addWatch(fd, path);
    m_folderHasEntries = false;
    // Folders that could not be watched are still walked, so that the description can count them.
    return true;
}

void InotifyEventStream::visitEntry(int, const char*, unsigned char)
{
    m_folderHasEntries = true;
}

void InotifyEventStream::leaveFolder(const std::string& path)
{
    // Entries made before the watch was in place raised no event of their own.
    if (m_rescanning && m_folderHasEntries)
        noteChange(path);
}

void InotifyEventStream::folderFailed(const std::string& path, int error)
{
    m_lastFolderError = error;
    if (!meansFolderGone(error))
        noteUnwatched(path, error);
}

void InotifyEventStream::enableNotifier()
{
    onLoopThread([this] {
        if (!m_notifier) {
            m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, loopContext());
            QObject::connect(m_notifier, &QSocketNotifier::activated, loopContext(),
                             guarded([this] { readEvents(); }));
        }
        m_notifier->setEnabled(true);
    });
}

void InotifyEventStream::readEvents()
{
    for (int reads = 0; reads < kReadsPerWakeUp; ++reads) {
        const ssize_t got = ::read(m_fd, m_buffer.data(), m_buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return;
        // A stopped stream keeps reading, only to keep the queue empty.
        if (!isRunning())
            continue;
        handleEvents(static_cast<std::size_t>(got));
    }
}

void InotifyEventStream::drainEvents()
{
    for (;;) {
        const ssize_t got = ::read(m_fd, m_buffer.data(), m_buffer.size());
        if (got > 0 || (got < 0 && errno == EINTR))
            continue;
        return;
    }
}

void InotifyEventStream::handleEvents(std::size_t size)
{
    for (std::size_t offset = 0; offset < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(m_buffer.data() + offset);
        handleEvent(*event);
        offset += sizeof(inotify_event) + event->len;
    }
}

void InotifyEventStream::handleEvent(const inotify_event& event)
{
    if (event.mask & IN_Q_OVERFLOW) {
        handleOverflow();
        return;
    }
    if (event.mask & IN_IGNORED) {
        forgetWatch(event.wd);
        return;
    }
    if (!m_folders.count(event.wd))
        return;
    if (event.mask & kSelfEvents) {
        // A sub-folder's own move or removal reaches its parent's watch too, which reports it.
        const int root = rootIndexForWatch(event.wd);
        if (root >= 0)
            rootChanged(m_roots[static_cast<std::size_t>(root)]);
        return;
    }
    handleEntryEvent(event.wd, event);
}

void InotifyEventStream::handleEntryEvent(int wd, const inotify_event& event)
{
    if (!(event.mask & kContentEvents))
        return;
    // A copy: the walks below may rename or drop watches, this one's string included.
    const std::string folder = m_folders[wd];
    noteChange(folder);
    if (event.len == 0 || !(event.mask & IN_ISDIR))
        return;
    const std::string child = childPath(folder, event.name);
    // A folder moved within the trees comes back with its IN_MOVED_TO and is walked again there;
    // one moved out must not go on reporting under a path that is no longer its own.
    if (event.mask & IN_MOVED_FROM)
        dropSubtree(child);
    else if (event.mask & (IN_CREATE | IN_MOVED_TO))
        watchTree(child, true);
}

// Lost events may hide new folders (never watched) and folders gone or moved away (still watched, under
// a stale path): the trees are walked again and whatever the walk does not meet is let go.
void InotifyEventStream::handleOverflow()
{
    for (const Root& root : m_roots)
        noteChange(root.path, EventStreamFlags::kMustScanSubDirs | EventStreamFlags::kKernelDropped);
    std::unordered_set<int> visited;
    m_visitedWatches = &visited;
    m_unwatchedFolders = 0;
    m_unwatchedExample.clear();
    watchRoots();
    m_visitedWatches = nullptr;
    std::vector<int> unvisited;
    for (const auto& [wd, path] : m_folders) {
        if (!visited.count(wd))
            unvisited.push_back(wd);
    }
    dropWatches(unvisited);
}

void InotifyEventStream::watchTree(const std::string& path, bool rescan)
{
    m_rescanning = rescan;
    FolderWalk::walk(path, *this, false);
    m_rescanning = false;
}

// A link at a root is followed: the user named that path and means what it leads to.
void InotifyEventStream::watchRoots()
{
    for (Root& root : m_roots) {
        const bool wasWatched = root.wd >= 0;
        root.wd = -1;
        m_lastFolderError = 0;
        const bool opened = FolderWalk::walk(root.path, *this, true);
        const auto indexed = m_watchByPath.find(root.path);
        // A missing sub-folder is simply gone; a missing root is a tree nobody watches.
        if (indexed != m_watchByPath.end())
            root.wd = indexed->second;
        else if (!opened && meansFolderGone(m_lastFolderError))
            noteUnwatched(root.path, m_lastFolderError);
        if (wasWatched && root.wd < 0)
            noteChange(root.path, EventStreamFlags::kRootChanged);
    }
}

bool InotifyEventStream::addWatch(int fd, const std::string& path)
{
    if (m_limits.maxWatches != 0 && m_folders.size() >= m_limits.maxWatches && !m_watchByPath.count(path)) {
        noteUnwatched(path, ENOSPC);
        return false;
    }
    char procPath[48];
    std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", fd);
    // The descriptor was opened without following any link, so its /proc entry (itself a link, hence
    // no IN_DONT_FOLLOW) leads to that very folder, with no lookup down the path and no PATH_MAX.
    int wd = ::inotify_add_watch(m_fd, procPath, kWatchMask);
    if (wd < 0 && errno == ENOENT && path.size() < PATH_MAX)
        wd = ::inotify_add_watch(m_fd, path.c_str(), kWatchMask | IN_DONT_FOLLOW); // no /proc mounted
    if (wd < 0) {
        noteUnwatched(path, errno);
        return false;
    }
    rememberWatch(wd, path);
    if (m_visitedWatches)
        m_visitedWatches->insert(wd);
    return true;
}

void InotifyEventStream::rememberWatch(int wd, const std::string& path)
{
    auto [folder, added] = m_folders.try_emplace(wd, path);
    if (!added) {
        if (folder->second == path)
            return;
        const auto indexed = m_watchByPath.find(folder->second);
        if (indexed != m_watchByPath.end() && indexed->second == wd)
            m_watchByPath.erase(indexed);
        folder->second = path;
    }
    const auto [entry, inserted] = m_watchByPath.try_emplace(folder->second, wd);
    if (!inserted) {
        // The same path under an older watch whose removal has not come in yet: the key must view the
        // string of the watch it names, which outlives it.
        m_watchByPath.erase(entry);
        m_watchByPath.emplace(folder->second, wd);
    }
}

void InotifyEventStream::forgetWatch(int wd)
{
    const auto folder = m_folders.find(wd);
    if (folder == m_folders.end())
        return;
    const auto indexed = m_watchByPath.find(folder->second);
    if (indexed != m_watchByPath.end() && indexed->second == wd)
        m_watchByPath.erase(indexed);
    m_folders.erase(folder);
}

void InotifyEventStream::dropSubtree(const std::string& path)
{
    std::vector<int> wds;
    const auto exact = m_watchByPath.find(path);
    if (exact != m_watchByPath.end())
        wds.push_back(exact->second);
    const std::string low = path == "/" ? path : path + '/';
    const std::string high = path == "/" ? std::string("0") : path + '0';
    for (auto it = m_watchByPath.lower_bound(low); it != m_watchByPath.end() && it->first < high; ++it)
        wds.push_back(it->second);
    dropWatches(wds);
}

void InotifyEventStream::dropWatches(const std::vector<int>& wds)
{
    for (const int wd : wds) {
        ::inotify_rm_watch(m_fd, wd);
        forgetWatch(wd);
    }
}

void InotifyEventStream::noteUnwatched(const std::string& path, int error)
{
    ++m_unwatchedFolders;
    if (m_unwatchedExample.empty()) {
        m_unwatchedExample = path;
        m_unwatchedError = error;
    }
}

int InotifyEventStream::rootIndexForWatch(int wd) const
{
    for (std::size_t i = 0; i < m_roots.size(); ++i) {
        if (m_roots[i].wd == wd)
            return static_cast<int>(i);
    }
    return -1;
}

// Whatever is under the root now lives elsewhere or nowhere: its watches would only report stale paths.
void InotifyEventStream::rootChanged(Root& root)
{
    noteChange(root.path, EventStreamFlags::kRootChanged);
    dropSubtree(root.path);
    root.wd = -1;
}
