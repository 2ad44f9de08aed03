#include "UserDefaults.h"

#include "Helpers/BundleInfo.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Binary data has no JSON form: it is kept as a base64 string.
bool readJson(QIODevice& device, QSettings::SettingsMap& map)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(device.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it)
        map.insert(it.key(), it.value().toVariant());
    return true;
}

bool writeJson(QIODevice& device, const QSettings::SettingsMap& map)
{
    QJsonObject object;
    for (auto it = map.begin(); it != map.end(); ++it)
        object.insert(it.key(), QJsonValue::fromVariant(it.value()));
    const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return device.write(text) == text.size();
}

QSettings::Format jsonFormat()
{
    static const QSettings::Format format = QSettings::registerFormat("json", readJson, writeJson);
    return format;
}

// Creates the missing folders of `folder` one at a time, so that the error is the one of the component
// that stopped it (a file in the way reads as "Not a directory", not as "File exists").
int makeFolders(const QByteArray& folder)
{
    for (qsizetype slash = folder.indexOf('/', 1);; slash = folder.indexOf('/', slash + 1)) {
        const QByteArray prefix = slash < 0 ? folder : folder.left(slash);
        struct stat info {};
        if (::stat(prefix.constData(), &info) == 0) {
            if (!S_ISDIR(info.st_mode))
                return ENOTDIR;
        } else if (errno != ENOENT) {
            return errno;
        } else if (::mkdir(prefix.constData(), 0777) != 0 && errno != EEXIST) {
            return errno;
        }
        if (slash < 0)
            return 0;
    }
}

// Does what a save does in `folder` (a new file next to the old one, written and flushed) with a file of
// its own, which is then removed.
int probeFolder(const QByteArray& folder, const QByteArray& fileName, qint64 bytes)
{
    QByteArray probePath = folder + "/." + fileName + ".probe-XXXXXX";
    const int fd = ::mkstemp(probePath.data()); // O_CREAT | O_EXCL
    if (fd < 0)
        return errno;
    int error = 0;
    const QByteArray block(bytes, '\n');
    qsizetype done = 0;
    while (error == 0 && done < block.size()) {
        const ssize_t written =
            ::write(fd, block.constData() + done, static_cast<size_t>(block.size() - done));
        if (written < 0 && errno != EINTR)
            error = errno;
        else if (written == 0)
            error = ENOSPC;
        else if (written > 0)
            done += written;
    }
    if (error == 0 && ::fsync(fd) != 0)
        error = errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    ::unlink(probePath.constData());
    return error;
}

// QSettings reports any failed save as AccessError, which tells the user nothing. The save is retraced
// with calls that give the system's reason; 0 when none of them fails (the cause went away meanwhile).
int writeObstacle(const QString& filePath)
{
    const QFileInfo file(filePath);
    const QByteArray path = QFile::encodeName(file.absoluteFilePath());
    qint64 currentSize = 0;
    struct stat info {};
    if (::stat(path.constData(), &info) == 0) {
        if (S_ISDIR(info.st_mode))
            return EISDIR;
        // QSettings will not replace a file it could not open for writing, even in a writable folder.
        const int fd = ::open(path.constData(), O_WRONLY | O_CLOEXEC);
        if (fd < 0)
            return errno;
        ::close(fd);
        currentSize = info.st_size;
    } else if (errno != ENOENT) {
        return errno;
    }
    const QByteArray folder = QFile::encodeName(file.absolutePath());
    if (const int error = makeFolders(folder))
        return error;
    // Room for the new contents, which are about the size of the old ones.
    return probeFolder(folder, QFile::encodeName(file.fileName()), currentSize + 4096);
}

} // namespace

UserDefaults::UserDefaults(const QString& filePath)
    : m_filePath(filePath)
{
    open();
    if (m_settings->status() == QSettings::FormatError) {
        setAsideUnreadableFile();
        open();
    }
}

UserDefaults::~UserDefaults() = default;

QString UserDefaults::standardFilePath()
{
    const QString configRoot = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    const QString name = QString::fromLatin1(BundleInfo::kBundleName);
    return configRoot + QLatin1Char('/') + name + QLatin1Char('/') + name + QStringLiteral(".json");
}

void UserDefaults::open()
{
    // Without the folder the store still works for this session: each write then says it failed, and
    // QSettings tries to make the folder again at every save.
    QDir().mkpath(QFileInfo(m_filePath).absolutePath());
    m_settings = makeSettings();
}

std::unique_ptr<QSettings> UserDefaults::makeSettings() const
{
    auto settings = std::make_unique<QSettings>(m_filePath, jsonFormat());
    settings->setAtomicSyncRequired(true);
    return settings;
}

void UserDefaults::setAsideUnreadableFile()
{
    m_settings.reset();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    m_setAsideFilePath = m_filePath + QStringLiteral(".unreadable-") + stamp;
    if (!QFile::rename(m_filePath, m_setAsideFilePath))
        m_setAsideFilePath.clear();
}

void UserDefaults::setWriteFailureObserver(std::function<void(const WriteFailure&)> observer)
{
    m_writeFailureObserver = std::move(observer);
}

// QSettings keeps the first error it met for the life of the instance, so once a save has failed its
// status says nothing about the next one. A new instance starts clean and still carries the changes the
// failed save left pending: QSettings holds one state per file for all its instances, and the new one is
// made before the old one goes so that state is never let go of.
void UserDefaults::prepareForWrite()
{
    if (m_settings->status() == QSettings::NoError)
        return;
    std::unique_ptr<QSettings> fresh = makeSettings();
    m_settings = std::move(fresh);
}

// A failed save leaves its changes pending in QSettings, which keeps answering reads with them and writes
// them at the next save that gets through.
bool UserDefaults::flush()
{
    m_settings->sync();
    if (m_settings->status() == QSettings::NoError) {
        m_lastWriteFailure.reset();
        return true;
    }
    const int cause = writeObstacle(m_filePath);
    m_lastWriteFailure = WriteFailure{m_filePath, cause != 0 ? qt_error_string(cause)
                                                             : QStringLiteral("The file could not be saved")};
    if (m_writeFailureObserver)
        m_writeFailureObserver(*m_lastWriteFailure);
    return false;
}

void UserDefaults::registerDefaults(const QVariantMap& defaults)
{
    for (auto it = defaults.begin(); it != defaults.end(); ++it)
        m_registeredDefaults.insert(it.key(), it.value());
}

QVariant UserDefaults::objectForKey(const QString& key) const
{
    const QVariant stored = m_settings->value(key);
    if (stored.isValid())
        return stored;
    return m_registeredDefaults.value(key);
}

bool UserDefaults::boolForKey(const QString& key) const
{
    const QVariant stored = m_settings->value(key);
    if (stored.typeId() == QMetaType::Bool)
        return stored.toBool();
    const QVariant fallback = m_registeredDefaults.value(key);
    return fallback.typeId() == QMetaType::Bool && fallback.toBool();
}

std::optional<QByteArray> UserDefaults::dataForKey(const QString& key) const
{
    const QVariant stored = objectForKey(key);
    if (stored.typeId() != QMetaType::QString)
        return std::nullopt;
    auto decoded =
        QByteArray::fromBase64Encoding(stored.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;
    return decoded.decoded;
}

std::optional<QVariantList> UserDefaults::arrayForKey(const QString& key) const
{
    const QVariant stored = objectForKey(key);
    if (stored.typeId() != QMetaType::QVariantList)
        return std::nullopt;
    return stored.toList();
}

bool UserDefaults::setObjectForKey(const QVariant& value, const QString& key)
{
    prepareForWrite();
    m_settings->setValue(key, value);
    return flush();
}

bool UserDefaults::setBoolForKey(bool value, const QString& key)
{
    return setObjectForKey(value, key);
}

bool UserDefaults::setDataForKey(const QByteArray& value, const QString& key)
{
    return setObjectForKey(QString::fromLatin1(value.toBase64()), key);
}

bool UserDefaults::removeObjectForKey(const QString& key)
{
    prepareForWrite();
    m_settings->remove(key);
    return flush();
}
