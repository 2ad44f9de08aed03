#include "SingleInstance.h"

#include "Helpers/FileDescriptor.h"
#include "platform/UserDefaults.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kAnswerTimeoutMs = 2000;
constexpr int kProbeTimeoutMs = 500;
constexpr unsigned long kRetryPauseMs = 25;
constexpr qint64 kLongestLine = 64;
constexpr qint64 kLongestRecord = 4096;
const QByteArray kReopen = QByteArrayLiteral("reopen\n");
const QByteArray kAcknowledged = QByteArrayLiteral("ok\n");

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

// Ours, a real folder (a link could be pointed elsewhere later) and closed to everybody else.
bool isPrivateFolder(const QString& path)
{
    struct stat status {};
    return !path.isEmpty() && ::lstat(encoded(path).constData(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::geteuid() && (status.st_mode & 07777) == 0700;
}

QString namedFolderIn(const QString& temporaryFolder)
{
    return temporaryFolder + QStringLiteral("/pelmora-%1").arg(::geteuid());
}

// The umask may have taken bits off a folder just made; one that was already there is taken as it is.
QString madeNamedFolderIn(const QString& temporaryFolder)
{
    const QString folder = namedFolderIn(temporaryFolder);
    if (::mkdir(encoded(folder).constData(), 0700) == 0)
        ::chmod(encoded(folder).constData(), 0700);
    return isPrivateFolder(folder) ? folder : QString();
}

// When the named folder is somebody else's, or was opened up, a fresh one nobody can have prepared.
QString madeFreshFolderIn(const QString& temporaryFolder)
{
    QByteArray pattern = encoded(namedFolderIn(temporaryFolder) + QStringLiteral("-XXXXXX"));
    return ::mkdtemp(pattern.data()) ? QFile::decodeName(pattern) : QString();
}

// Named after the preferences it guards, so that programs on other preferences never meet in one folder.
QString socketNameFor(const QString& lockFile)
{
    const QByteArray digest =
        QCryptographicHash::hash(encoded(QFileInfo(lockFile).absoluteFilePath()), QCryptographicHash::Sha256);
    return QStringLiteral("pelmora-%1.socket").arg(QString::fromLatin1(digest.toHex().left(16)));
}

std::optional<uid_t> peerUid(qintptr descriptor)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(static_cast<int>(descriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return std::nullopt;
    return credentials.uid;
}

bool isOurs(const QLocalSocket& socket)
{
    return peerUid(socket.socketDescriptor()) == ::geteuid();
}

bool answers(const QString& socketPath)
{
    QLocalSocket probe;
    probe.connectToServer(socketPath);
    return probe.waitForConnected(kProbeTimeoutMs);
}

// A socket file left by a program that crashed is replaced. Another user's file, and a socket of ours
// that still answers (a program on other preferences), are left alone.
bool clearWayFor(const QString& socketPath)
{
    struct stat status {};
    if (::lstat(encoded(socketPath).constData(), &status) != 0)
        return errno == ENOENT;
    if (status.st_uid != ::geteuid() || S_ISDIR(status.st_mode))
        return false;
    if (S_ISSOCK(status.st_mode) && answers(socketPath))
        return false;
    return ::unlink(encoded(socketPath).constData()) == 0;
}

QByteArray waitForLine(QLocalSocket& socket)
{
    const QDeadlineTimer deadline(kAnswerTimeoutMs);
    while (!socket.canReadLine()) {
        if (deadline.hasExpired() || !socket.waitForReadyRead(static_cast<int>(deadline.remainingTime())))
            return {};
    }
    return socket.readLine(kLongestLine);
}

// A server of another user is never told anything: it would learn that we run, and we would end.
bool handOverTo(const QString& socketPath)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(kAnswerTimeoutMs) || !isOurs(socket))
        return false;
    socket.write(kReopen);
    return socket.waitForBytesWritten(kAnswerTimeoutMs) && waitForLine(socket) == kAcknowledged;
}

QString readRecord(const QString& lockFile)
{
    FileDescriptor file(::open(encoded(lockFile).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    QByteArray record(kLongestRecord, '\0');
    const ssize_t got = file.get() < 0 ? -1 : ::read(file.get(), record.data(), kLongestRecord);
    return got > 0 ? QFile::decodeName(record.left(got).trimmed()) : QString();
}

// A lock file we may only read still takes the lock: flock does not care how the file was opened.
int openLockFile(const QString& lockFile)
{
    const int fd = ::open(encoded(lockFile).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    return fd >= 0 ? fd : ::open(encoded(lockFile).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
}

} // namespace

SingleInstance::SingleInstance(Places places, QObject* parent)
    : QObject(parent)
    , m_places(std::move(places))
{
}

SingleInstance::~SingleInstance()
{
    m_server.reset(); // removes the socket file
    if (m_lock) {
        // Nobody is sent to a socket that is gone; the lock itself goes with the descriptor.
        [[maybe_unused]] const int truncated = ::ftruncate(m_lock->get(), 0);
    }
    if (!m_madeFolder.isEmpty())
        ::rmdir(encoded(m_madeFolder).constData());
}

// Not the preferences' name plus ".lock": QSettings takes that one for each save.
SingleInstance::Places SingleInstance::standardPlaces()
{
    const QFileInfo preferences(UserDefaults::standardFilePath());
    const QString lockFile = preferences.path() + QLatin1Char('/') + preferences.completeBaseName() +
                             QStringLiteral(".instance.lock");
    return {lockFile, qEnvironmentVariable("XDG_RUNTIME_DIR"), QDir::tempPath()};
}

SingleInstance::Claim SingleInstance::claim()
{
    const QDeadlineTimer patience(m_handOverPatienceMs);
    for (;;) {
        const Lock lock = takeLock();
        if (lock != Lock::HeldElsewhere) {
            // Where no lock file can be made, the preferences beside it cannot be written either.
            if (lock == Lock::Unavailable)
                qWarning("Pelmora: cannot lock %s; starting without it",
                         encoded(m_places.lockFile).constData());
            startAnswering();
            return Claim::Launch;
        }
        if (handOver())
            return Claim::HandedOver;
        if (patience.hasExpired())
            return Claim::AlreadyRunning;
        QThread::msleep(kRetryPauseMs);
    }
}

bool SingleInstance::claimWithoutAnswering()
{
    return takeLock() != Lock::HeldElsewhere;
}

bool SingleInstance::isAnswering() const
{
    return m_server && m_server->isListening();
}

QString SingleInstance::alreadyRunningMessage() const
{
    return QStringLiteral("Pelmora is already running with these preferences (%1 is locked) but does not "
                          "answer; not starting a second one.")
        .arg(m_places.lockFile);
}

SingleInstance::Lock SingleInstance::takeLock()
{
    QDir().mkpath(QFileInfo(m_places.lockFile).absolutePath());
    auto lock = std::make_unique<FileDescriptor>(openLockFile(m_places.lockFile));
    if (lock->get() < 0)
        return Lock::Unavailable;
    if (::flock(lock->get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? Lock::HeldElsewhere : Lock::Unavailable;
    m_lock = std::move(lock);
    return Lock::Taken;
}

bool SingleInstance::handOver() const
{
    for (const QString& socketPath : handOverCandidates()) {
        if (handOverTo(socketPath))
            return true;
    }
    return false;
}

// The holder's own record first: it may have been started with another TMPDIR or runtime folder.
QStringList SingleInstance::handOverCandidates() const
{
    QStringList candidates;
    const QString recorded = readRecord(m_places.lockFile);
    if (recorded.startsWith(QLatin1Char('/')))
        candidates << recorded;
    const QString folder = conventionalSocketFolder();
    const QString conventional = folder + QLatin1Char('/') + socketNameFor(m_places.lockFile);
    if (!folder.isEmpty() && !candidates.contains(conventional))
        candidates << conventional;
    return candidates;
}

QString SingleInstance::conventionalSocketFolder() const
{
    if (isPrivateFolder(m_places.runtimeFolder))
        return m_places.runtimeFolder;
    const QString named = namedFolderIn(m_places.temporaryFolder);
    return isPrivateFolder(named) ? named : QString();
}

QString SingleInstance::socketFolderForListening()
{
    if (isPrivateFolder(m_places.runtimeFolder))
        return m_places.runtimeFolder;
    const QString named = madeNamedFolderIn(m_places.temporaryFolder);
    if (!named.isEmpty())
        return named;
    m_madeFolder = madeFreshFolderIn(m_places.temporaryFolder);
    return m_madeFolder;
}

// Not answering is no reason to stop: the lock still keeps a second program off these preferences.
void SingleInstance::startAnswering()
{
    const QString folder = socketFolderForListening();
    const QString socketPath = folder + QLatin1Char('/') + socketNameFor(m_places.lockFile);
    auto server = std::make_unique<QLocalServer>();
    if (folder.isEmpty() || !clearWayFor(socketPath) || !server->listen(socketPath)) {
        qWarning("Pelmora: later starts cannot reach this one at %s", encoded(socketPath).constData());
        return;
    }
    m_server = std::move(server);
    m_socketPath = socketPath;
    connect(m_server.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server->nextPendingConnection())
            answer(socket);
    });
    recordSocketPath();
}

void SingleInstance::recordSocketPath()
{
    const QByteArray record = encoded(m_socketPath) + '\n';
    if (m_lock && ::ftruncate(m_lock->get(), 0) == 0 && ::lseek(m_lock->get(), 0, SEEK_SET) == 0)
        FileDescriptor::writeAll(m_lock->get(), record.constData(), static_cast<std::size_t>(record.size()));
}

// Another user's connection is dropped unread, whatever the socket's permissions let through.
void SingleInstance::answer(QLocalSocket* socket)
{
    if (!isOurs(*socket)) {
        socket->abort();
        socket->deleteLater();
        return;
    }
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    const auto readRequest = [this, socket] {
        if (!socket->canReadLine() && socket->bytesAvailable() < kLongestLine)
            return;
        if (socket->readLine(kLongestLine) == kReopen) {
            emit reopenRequested();
            socket->write(kAcknowledged);
        }
        socket->disconnectFromServer();
    };
    connect(socket, &QLocalSocket::readyRead, this, readRequest);
    if (socket->bytesAvailable() > 0)
        readRequest();
}
