#include "PollingEventStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <QFile>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <sys/stat.h>

namespace {

// splitmix64's finaliser: every input bit reaches every output bit, so that the entries of a folder can
// simply be added up, in whatever order the folder lists them.
std::uint64_t scramble(std::uint64_t value)
{
    value ^= value >> 30;
    value *= 0xbf58476d1ce4e5b9ULL;
    value ^= value >> 27;
    value *= 0x94d049bb133111ebULL;
    value ^= value >> 31;
    return value;
}

std::uint64_t combine(std::uint64_t hash, std::uint64_t value)
{
    return scramble(hash ^ (value + 0x9e3779b97f4a7c15ULL));
}

std::uint64_t hashName(const char* name)
{
    std::uint64_t hash = 0xcbf29ce484222325ULL; // FNV-1a
    for (const char* byte = name; *byte; ++byte)
        hash = (hash ^ static_cast<unsigned char>(*byte)) * 0x100000001b3ULL;
    return hash;
}

std::uint64_t combineStatus(std::uint64_t hash, const struct stat& status)
{
    hash = combine(hash, status.st_mode);
    hash = combine(hash, static_cast<std::uint64_t>(status.st_size));
    hash = combine(hash, static_cast<std::uint64_t>(status.st_mtim.tv_sec));
    hash = combine(hash, static_cast<std::uint64_t>(status.st_mtim.tv_nsec));
    // The change time catches what leaves size and modification time alone: permissions, renames.
    hash = combine(hash, static_cast<std::uint64_t>(status.st_ctim.tv_sec));
    hash = combine(hash, static_cast<std::uint64_t>(status.st_ctim.tv_nsec));
    return combine(hash, status.st_ino);
}

bool meansFolderGone(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

} // namespace

void PollingEventStream::Snapshot::begin(Changed changed)
{
    m_changed = std::move(changed);
    m_unreadableFolders = 0;
    m_unreadableExample.clear();
    m_nextSignatures.reserve(m_signatures.size());
}

int PollingEventStream::Snapshot::scan(const std::string& root, bool followRootLink)
{
    m_lastError = 0;
    // The walk's last word before it gives up on the top folder is why.
    return FolderWalk::walk(root, *this, followRootLink) ? 0 : m_lastError;
}

void PollingEventStream::Snapshot::finish()
{
    m_signatures.swap(m_nextSignatures);
    m_nextSignatures.clear();
    m_changed = nullptr;
}

void PollingEventStream::Snapshot::add(const std::string& root, Changed changed)
{
    m_changed = std::move(changed);
    FolderWalk::walk(root, *this, false);
    m_changed = nullptr;
    for (auto& [folder, signature] : m_nextSignatures)
        m_signatures.insert_or_assign(folder, signature);
    m_nextSignatures.clear();
}

void PollingEventStream::Snapshot::forget(const std::string& root)
{
    const std::string inside = root == "/" ? root : root + '/';
    std::erase_if(m_signatures,
                  [&](const auto& entry) { return entry.first == root || entry.first.starts_with(inside); });
}

void PollingEventStream::Snapshot::clear()
{
    m_signatures.clear();
    m_nextSignatures.clear();
    m_unreadableFolders = 0;
    m_unreadableExample.clear();
}

QString PollingEventStream::Snapshot::unreadableDescription() const
{
    if (m_unreadableFolders == 0)
        return {};
    return QStringLiteral("%1 folders not watched (one of them: \"%2\"): %3")
        .arg(m_unreadableFolders)
        .arg(QFile::decodeName(QByteArray::fromStdString(m_unreadableExample)),
             QString::fromLocal8Bit(std::strerror(m_unreadableError)));
}

bool PollingEventStream::Snapshot::enterFolder(int fd, const std::string&)
{
    m_folderEntries = 0;
    m_folderSum = 0;
    // The folder's own attributes count too, as a watch on it would report them.
    struct stat status {};
    if (::fstat(fd, &status) == 0)
        m_folderSum = combineStatus(0, status);
    return true;
}

void PollingEventStream::Snapshot::visitEntry(int folderFd, const char* name, unsigned char type)
{
    std::uint64_t hash = combine(hashName(name), type);
    struct stat status {};
    // An entry gone since the listing still counts by name: the next scan sees it missing. A sub-folder's
    // times move with its contents, which are its own signature's business.
    if (::fstatat(folderFd, name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        hash = type == DT_DIR ? combine(combine(hash, status.st_mode), status.st_ino)
                              : combineStatus(hash, status);
    m_folderSum += scramble(hash);
    ++m_folderEntries;
}

void PollingEventStream::Snapshot::leaveFolder(const std::string& path)
{
    const std::uint64_t signature = combine(m_folderSum, m_folderEntries);
    m_nextSignatures.emplace(path, signature);
    if (!m_changed)
        return;
    const auto known = m_signatures.find(path);
    // A folder new since the last scan is reported when it holds something: nothing else would tell.
    if (known == m_signatures.end() ? m_folderEntries > 0 : known->second != signature)
        m_changed(path);
}

void PollingEventStream::Snapshot::folderFailed(const std::string& path, int error)
{
    m_lastError = error;
    if (meansFolderGone(error))
        return;
    ++m_unreadableFolders;
    if (m_unreadableExample.empty()) {
        m_unreadableExample = path;
        m_unreadableError = error;
    }
}

PollingEventStream::PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback)
    : PollingEventStream(paths, latencySeconds, std::move(callback), intervalForLatency(latencySeconds))
{
}

PollingEventStream::PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback,
                                       std::chrono::milliseconds interval)
    : ScheduledEventStream(paths, latencySeconds, std::move(callback))
    , m_interval(std::max(interval, std::chrono::milliseconds(1)))
{
    for (const std::string& path : rootPaths())
        m_roots.push_back(Root{path});
}

PollingEventStream::~PollingEventStream()
{
    release();
}

std::chrono::milliseconds PollingEventStream::intervalForLatency(double latencySeconds)
{
    const double milliseconds = std::clamp(latencySeconds, 0.0, 86400.0) * 1000.0;
    return std::max(kMinimumInterval, std::chrono::milliseconds(static_cast<long long>(milliseconds)));
}

// A root that is missing is no reason not to start: it is looked for at every poll, like the rest.
bool PollingEventStream::beginWatching()
{
    for (Root& root : m_roots)
        root = Root{root.path};
    m_snapshot.clear();
    scan(false);
    onLoopThread([this] {
        if (!m_timer) {
            m_timer = new QTimer(loopContext());
            QObject::connect(m_timer, &QTimer::timeout, loopContext(), guarded([this] { poll(); }));
        }
        m_timer->start(m_interval);
    });
    return true;
}

void PollingEventStream::endWatching()
{
    onLoopThread([this] {
        if (m_timer)
            m_timer->stop();
    });
    m_snapshot.clear();
}

void PollingEventStream::collectChanges()
{
    scan(true);
}

void PollingEventStream::loopDetached()
{
    if (m_timer && m_timer->thread() == QThread::currentThread())
        m_timer->stop();
    m_timer = nullptr;
}

QString PollingEventStream::backendName() const
{
    return QStringLiteral("polling");
}

QString PollingEventStream::coverageDescription() const
{
    QString text = QStringLiteral("polled every %1 ms, %2 folders known")
                       .arg(m_interval.count())
                       .arg(m_snapshot.folderCount());
    for (const Root& root : m_roots) {
        if (!root.present)
            text += QStringLiteral("; \"%1\" is missing")
                        .arg(QFile::decodeName(QByteArray::fromStdString(root.path)));
    }
    const QString unreadable = m_snapshot.unreadableDescription();
    return unreadable.isEmpty() ? text : text + QStringLiteral("; ") + unreadable;
}

void PollingEventStream::poll()
{
    if (!isRunning())
        return;
    scan(true);
    deliverPending();
}

void PollingEventStream::scan(bool report)
{
    m_snapshot.begin(report ? Snapshot::Changed([this](const std::string& folder) { noteChange(folder); })
                            : Snapshot::Changed());
    for (Root& root : m_roots)
        scanRoot(root, report);
    m_snapshot.finish();
}

// A root that disappears, comes back, or is replaced by another folder is a changed root.
void PollingEventStream::scanRoot(Root& root, bool report)
{
    struct stat status {};
    const bool present = ::stat(root.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const bool replaced =
        present && root.present && (status.st_dev != root.device || status.st_ino != root.inode);
    if (report && (present != root.present || replaced))
        noteChange(root.path, EventStreamFlags::kRootChanged);
    root.present = present;
    root.device = present ? status.st_dev : 0;
    root.inode = present ? status.st_ino : 0;
    if (present)
        m_snapshot.scan(root.path, true);
}
