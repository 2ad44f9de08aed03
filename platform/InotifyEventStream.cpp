#include "InotifyEventStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <QFile>
#include <QLoggingCategory>
#include <QObject>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// Off by default, like the program's other categories: QT_LOGGING_RULES="pelmora.*.info=true" shows it.
Q_LOGGING_CATEGORY(lcWatch, "pelmora.watch", QtWarningMsg)

constexpr std::uint32_t kContentEvents =
    IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE;
constexpr std::uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
// IN_EXCL_UNLINK: a file deleted while still open would otherwise go on reporting its writes.
constexpr std::uint32_t kWatchMask =
    kContentEvents | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;
constexpr std::size_t kReadBufferSize = 64 * 1024;
// A storm of events must not starve the rest of the loop: the notifier comes back for the remainder.
constexpr int kReadsPerWakeUp = 16;
// Following a root down to where it is again takes one round per name that appears; a path that keeps
// changing under the stream gets no more than this at once, and is taken up again at its next event.
constexpr int kFollowRounds = 64;

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

std::string parentOf(const std::string& path)
{
    const std::size_t cut = path.rfind('/');
    return cut == 0 || cut == std::string::npos ? std::string("/") : path.substr(0, cut);
}

bool isFolder(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

QString qtPath(const std::string& path)
{
    return QFile::decodeName(QByteArray::fromStdString(path));
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

std::unique_ptr<InotifyEventStream>
InotifyEventStream::create(const QStringList& paths, double latencySeconds, Callback callback, Limits limits)
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
    , m_pollInterval(limits.pollInterval.count() > 0 ? limits.pollInterval
                                                     : PollingEventStream::intervalForLatency(latencySeconds))
    , m_buffer(kReadBufferSize)
{
    for (const std::string& path : rootPaths())
        m_roots.push_back(Root{path});
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
    // A root that is missing is waited for: only one that can be neither watched nor waited for fails.
    for (const Root& root : m_roots) {
        if (isPresent(root) || root.ancestorWd >= 0 || root.lookedForByPoll)
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
    for (Root& root : m_roots) {
        root.wd = -1;
        root.lookedForByPoll = false;
        releaseAncestor(root);
    }
    m_polledTrees.clear();
    m_newlyPolled.clear();
    m_polled.clear();
    onLoopThread([this] {
        if (m_pollTimer)
            m_pollTimer->stop();
    });
}

void InotifyEventStream::collectChanges()
{
    // Everything the kernel holds, however much: a flush promises all of it.
    for (;;) {
        const ssize_t got = ::read(m_fd, m_buffer.data(), m_buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        handleEvents(static_cast<std::size_t>(got));
    }
    pollFolders(true);
}

void InotifyEventStream::loopDetached()
{
    if (m_notifier && m_notifier->thread() == QThread::currentThread())
        m_notifier->setEnabled(false);
    m_notifier = nullptr;
    if (m_pollTimer && m_pollTimer->thread() == QThread::currentThread())
        m_pollTimer->stop();
    m_pollTimer = nullptr;
}

QString InotifyEventStream::backendName() const
{
    return QStringLiteral("inotify");
}

QString InotifyEventStream::coverageDescription() const
{
    QString text = QStringLiteral("%1 folders watched").arg(m_folders.size());
    if (!m_polledTrees.empty()) {
        text += QStringLiteral("; %1 folders not watched by inotify but polled every %2 ms (one of them: "
                               "\"%3\"): %4")
                    .arg(m_polled.folderCount())
                    .arg(m_pollInterval.count())
                    .arg(qtPath(*m_polledTrees.begin()), reasonText(ENOSPC));
        const QString unreadable = m_polled.unreadableDescription();
        if (!unreadable.isEmpty())
            text += QStringLiteral("; polled, ") + unreadable;
    }
    for (const Root& root : m_roots) {
        if (root.ancestorWd >= 0)
            text += QStringLiteral("; \"%1\" is missing, waited for in \"%2\"")
                        .arg(qtPath(root.path), qtPath(root.ancestor));
        else if (root.lookedForByPoll)
            text += QStringLiteral("; \"%1\" is missing, looked for every %2 ms: %3")
                        .arg(qtPath(root.path))
                        .arg(m_pollInterval.count())
                        .arg(reasonText(ENOSPC));
    }
    if (m_unwatchedFolders == 0)
        return text;
    return text + QStringLiteral("; %1 folders not watched (one of them: \"%2\"): %3")
                      .arg(m_unwatchedFolders)
                      .arg(qtPath(m_unwatchedExample), reasonText(m_unwatchedError));
}

bool InotifyEventStream::enterFolder(int fd, const std::string& path)
{
    m_folderHasEntries = false;
    const int error = addWatch(fd, path);
    if (error != ENOSPC)
        return true; // walked even without a watch, so that the description can count what is not
    // Out of watches: the folder and everything under it are polled instead. The poll walks them itself.
    if (!isPolled(path))
        m_newlyPolled.push_back(path);
    return false;
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
        // The folder a missing root was waited for in is gone, or its watch went with a tree: look again.
        for (Root& root : m_roots) {
            if (root.ancestorWd == event.wd) {
                root.ancestorWd = -1;
                followRoot(root, true);
            }
        }
        return;
    }
    handleAncestorEvent(event);
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

void InotifyEventStream::handleAncestorEvent(const inotify_event& event)
{
    for (Root& root : m_roots) {
        if (root.ancestorWd != event.wd)
            continue;
        // The folder waited in went itself (a root is then looked for from further up), or the name
        // waited for came.
        const bool arrived =
            (event.mask & (IN_CREATE | IN_MOVED_TO)) && event.len != 0 && root.awaitedName == event.name;
        if (arrived || (event.mask & kSelfEvents))
            followRoot(root, true);
    }
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
    // Polled trees lost no events: they stay as they are.
    watchRoots();
    m_visitedWatches = nullptr;
    std::vector<int> unvisited;
    for (const auto& [wd, path] : m_folders) {
        if (!visited.count(wd))
            unvisited.push_back(wd);
    }
    dropWatches(unvisited);
}

// False when the top folder could not be opened.
bool InotifyEventStream::watchTree(const std::string& path, bool rescan, bool followRootLink)
{
    m_rescanning = rescan;
    m_lastFolderError = 0;
    const bool opened = FolderWalk::walk(path, *this, followRootLink);
    m_rescanning = false;
    pollNewFolders(rescan);
    return opened;
}

void InotifyEventStream::watchRoots()
{
    for (Root& root : m_roots)
        followRoot(root, false);
}

// A link at a root is followed: the user named that path and means what it leads to. Whatever is at the
// path now is watched; when nothing is, the root is waited for. A root that was there and is not, or the
// other way round, has changed.
void InotifyEventStream::followRoot(Root& root, bool rescan)
{
    const bool wasPresent = isPresent(root);
    int awaitError = 0;
    for (int round = 0; round < kFollowRounds; ++round) {
        // A watch still indexed under the path of a root that is gone is stale (after an overflow).
        const bool opened = watchTree(root.path, rescan, true);
        const auto indexed = m_watchByPath.find(root.path);
        root.wd = opened && indexed != m_watchByPath.end() ? indexed->second : -1;
        if (isPresent(root)) {
            releaseAncestor(root);
            break;
        }
        // A root that is there but cannot be read is not waited for: nothing would say when it can be.
        if (!meansFolderGone(m_lastFolderError) || (awaitError = awaitRoot(root)) != 0)
            break;
        // The name waited for may have come between the walk and the watch, which would not see it.
        if (!isFolder(root.ancestor + (root.ancestor == "/" ? "" : "/") + root.awaitedName))
            break;
    }
    // Out of watches even for the folder above: the poll that covers the folders beyond the limit looks.
    root.lookedForByPoll = !isPresent(root) && awaitError == ENOSPC;
    if (root.lookedForByPoll)
        startPollTimer();
    if (wasPresent != isPresent(root))
        noteChange(root.path, EventStreamFlags::kRootChanged);
}

// Watches the nearest folder above the root that exists, for the next name on the way down to appear;
// 0, or why no folder above could be watched. The watch has the mask of every other, so that sharing it
// with a watched tree changes nothing there.
int InotifyEventStream::awaitRoot(Root& root)
{
    std::string below = root.path;
    int error = ENOENT;
    while (below != "/") {
        const std::string folder = parentOf(below);
        const bool held = m_watchByPath.count(folder) != 0 ||
                          std::any_of(m_roots.begin(), m_roots.end(),
                                      [&](const Root& other) { return other.ancestor == folder; });
        int wd = -1;
        if (atWatchLimit() && !held) {
            errno = ENOSPC;
        } else if (folder.size() < PATH_MAX) {
            wd = ::inotify_add_watch(m_fd, folder.c_str(), kWatchMask);
        } else if (const int fd = FolderWalk::openFolder(folder, true); fd >= 0) {
            char procPath[48];
            std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", fd);
            wd = ::inotify_add_watch(m_fd, procPath, kWatchMask);
            const int watchError = errno;
            ::close(fd);
            errno = watchError;
        }
        if (wd >= 0) {
            if (wd != root.ancestorWd)
                releaseAncestor(root);
            root.ancestorWd = wd;
            root.ancestor = folder;
            root.awaitedName = below.substr(folder == "/" ? 1 : folder.size() + 1);
            return 0;
        }
        error = errno;
        if (!meansFolderGone(error)) {
            if (error != ENOSPC)
                noteUnwatched(folder, error);
            break;
        }
        below = folder;
    }
    releaseAncestor(root);
    return error;
}

bool InotifyEventStream::atWatchLimit() const
{
    if (m_limits.maxWatches == 0)
        return false;
    std::size_t held = m_folders.size();
    for (std::size_t i = 0; i < m_roots.size(); ++i) {
        const int wd = m_roots[i].ancestorWd;
        const auto sharedBefore = [&] {
            return std::any_of(m_roots.begin(), m_roots.begin() + static_cast<std::ptrdiff_t>(i),
                               [&](const Root& other) { return other.ancestorWd == wd; });
        };
        if (wd >= 0 && !m_folders.count(wd) && !sharedBefore())
            ++held;
    }
    return held >= m_limits.maxWatches;
}

void InotifyEventStream::releaseAncestor(Root& root)
{
    const int wd = std::exchange(root.ancestorWd, -1);
    root.ancestor.clear();
    root.awaitedName.clear();
    // Still needed when it also watches a folder of a tree, or another root waits there too.
    if (wd < 0 || m_folders.count(wd))
        return;
    for (const Root& other : m_roots) {
        if (other.ancestorWd == wd)
            return;
    }
    ::inotify_rm_watch(m_fd, wd);
}

bool InotifyEventStream::isPresent(const Root& root) const
{
    return root.wd >= 0 || m_polledTrees.count(root.path) != 0;
}

// 0 when the folder is watched, else why not.
int InotifyEventStream::addWatch(int fd, const std::string& path)
{
    if (atWatchLimit() && !m_watchByPath.count(path))
        return ENOSPC;
    char procPath[48];
    std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", fd);
    // The descriptor was opened without following any link, so its /proc entry (itself a link, hence
    // no IN_DONT_FOLLOW) leads to that very folder, with no lookup down the path and no PATH_MAX.
    int wd = ::inotify_add_watch(m_fd, procPath, kWatchMask);
    if (wd < 0 && errno == ENOENT && path.size() < PATH_MAX)
        wd = ::inotify_add_watch(m_fd, path.c_str(), kWatchMask | IN_DONT_FOLLOW); // no /proc mounted
    if (wd < 0) {
        const int error = errno;
        if (error != ENOSPC)
            noteUnwatched(path, error);
        return error;
    }
    rememberWatch(wd, path);
    if (m_visitedWatches)
        m_visitedWatches->insert(wd);
    return 0;
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
    const auto polledEnd = m_polledTrees.lower_bound(high);
    for (auto it = m_polledTrees.lower_bound(path); it != polledEnd;) {
        if (*it == path || it->starts_with(low)) {
            m_polled.forget(*it);
            it = m_polledTrees.erase(it);
        } else {
            ++it;
        }
    }
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
// Then the root is followed to what is at its path now, if anything.
void InotifyEventStream::rootChanged(Root& root)
{
    noteChange(root.path, EventStreamFlags::kRootChanged);
    dropSubtree(root.path);
    root.wd = -1;
    followRoot(root, true);
}

bool InotifyEventStream::isPolled(const std::string& path) const
{
    for (std::string folder = path;; folder = parentOf(folder)) {
        if (m_polledTrees.count(folder))
            return true;
        if (folder == "/")
            return false;
    }
}

// The trees the walk just met without watches to spare get their first signatures. On a rescan the
// folders in them that hold something are reported, as the walk reports the watched ones.
void InotifyEventStream::pollNewFolders(bool report)
{
    if (m_newlyPolled.empty())
        return;
    for (const std::string& tree : std::exchange(m_newlyPolled, {})) {
        m_polledTrees.insert(tree);
        m_polled.add(tree, report ? PollingEventStream::Snapshot::Changed(
                                        [this](const std::string& folder) { noteChange(folder); })
                                  : PollingEventStream::Snapshot::Changed());
    }
    startPollTimer();
    if (!std::exchange(m_pollingLogged, true))
        qCInfo(lcWatch).noquote()
            << QStringLiteral("Out of inotify watches (%1 held): %2 folders are polled every %3 ms instead, "
                              "starting with \"%4\"")
                   .arg(m_folders.size())
                   .arg(m_polled.folderCount())
                   .arg(m_pollInterval.count())
                   .arg(qtPath(*m_polledTrees.begin()));
}

// Trees polled whose top folder is gone are let go: the folder that held them reports it. A polled root
// that is gone has changed, and is followed.
void InotifyEventStream::pollFolders(bool report)
{
    if (m_polledTrees.empty())
        return;
    std::vector<std::string> gone;
    m_polled.begin(report ? PollingEventStream::Snapshot::Changed(
                                [this](const std::string& folder) { noteChange(folder); })
                          : PollingEventStream::Snapshot::Changed());
    for (const std::string& tree : m_polledTrees) {
        if (meansFolderGone(m_polled.scan(tree, false)))
            gone.push_back(tree);
    }
    m_polled.finish();
    for (const std::string& tree : gone)
        m_polledTrees.erase(tree);
    for (Root& root : m_roots) {
        if (std::find(gone.begin(), gone.end(), root.path) != gone.end()) {
            noteChange(root.path, EventStreamFlags::kRootChanged);
            followRoot(root, true);
        }
    }
}

void InotifyEventStream::startPollTimer()
{
    onLoopThread([this] {
        if (!m_pollTimer) {
            m_pollTimer = new QTimer(loopContext());
            QObject::connect(m_pollTimer, &QTimer::timeout, loopContext(), guarded([this] { pollTick(); }));
        }
        if (!m_pollTimer->isActive())
            m_pollTimer->start(m_pollInterval);
    });
}

// What a poll finds is delivered at once, as the polling stream does: it is late enough already.
void InotifyEventStream::pollTick()
{
    if (!isRunning())
        return;
    for (Root& root : m_roots) {
        if (root.lookedForByPoll)
            followRoot(root, true);
    }
    pollFolders(true);
    deliverPending();
}
