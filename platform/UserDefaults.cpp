#include "UserDefaults.h"

#include "BundleInfo.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

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

QString UserDefaults::filePath() const
{
    return m_filePath;
}

void UserDefaults::open()
{
    QDir().mkpath(QFileInfo(m_filePath).absolutePath());
    m_settings = std::make_unique<QSettings>(m_filePath, jsonFormat());
    m_settings->setAtomicSyncRequired(true);
}

void UserDefaults::setAsideUnreadableFile()
{
    m_settings.reset();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    m_setAsideFilePath = m_filePath + QStringLiteral(".unreadable-") + stamp;
    if (!QFile::rename(m_filePath, m_setAsideFilePath))
        m_setAsideFilePath.clear();
}

void UserDefaults::flush()
{
    m_settings->sync();
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
    auto decoded = QByteArray::fromBase64Encoding(stored.toString().toLatin1(),
                                                  QByteArray::AbortOnBase64DecodingErrors);
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

void UserDefaults::setObjectForKey(const QVariant& value, const QString& key)
{
    m_settings->setValue(key, value);
    flush();
}

void UserDefaults::setBoolForKey(bool value, const QString& key)
{
    setObjectForKey(value, key);
}

void UserDefaults::setDataForKey(const QByteArray& value, const QString& key)
{
    setObjectForKey(QString::fromLatin1(value.toBase64()), key);
}

void UserDefaults::removeObjectForKey(const QString& key)
{
    m_settings->remove(key);
    flush();
}
