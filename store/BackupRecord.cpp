#include "BackupRecord.h"

#include <cmath>
#include <limits>
#include <QVariantMap>

BackupRecord::BackupRecord(QVariant stored)
    : m_stored(std::move(stored))
{
}

BackupRecordRef BackupRecord::make(const QDateTime& backupDate, const QString& backupFolder,
                                   qint64 backupSize)
{
    QVariantMap stored{{kBackupDateKey, storedDate(backupDate)},
                       {kBackupFolderKey, backupFolder},
                       {kBackupSizeKey, backupSize}};
    return BackupRecordRef(new BackupRecord(stored));
}

BackupRecordRef BackupRecord::fromStored(const QVariant& stored)
{
    return BackupRecordRef(new BackupRecord(stored));
}

QString BackupRecord::storedDate(const QDateTime& date)
{
    // With its offset written out, the instant reads back the same in any time zone.
    return date.toOffsetFromUtc(date.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

std::optional<QDateTime> BackupRecord::dateFromStored(const QVariant& value)
{
    if (value.typeId() != QMetaType::QString)
        return std::nullopt;
    const QDateTime date = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
    if (!date.isValid())
        return std::nullopt;
    return date;
}

QVariant BackupRecord::storedValue(const QString& key) const
{
    if (m_stored.typeId() != QMetaType::QVariantMap)
        return {};
    return m_stored.toMap().value(key);
}

std::optional<QDateTime> BackupRecord::backupDate() const
{
    return dateFromStored(storedValue(kBackupDateKey));
}

std::optional<QString> BackupRecord::backupFolder() const
{
    const QVariant value = storedValue(kBackupFolderKey);
    if (value.typeId() != QMetaType::QString)
        return std::nullopt;
    return value.toString();
}

std::optional<qint64> BackupRecord::backupSize() const
{
    const QVariant value = storedValue(kBackupSizeKey);
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::Double: {
        // JSON numbers may come back as doubles; only whole numbers in range are sizes.
        const double number = value.toDouble();
        if (std::isfinite(number) && number == std::floor(number) && std::fabs(number) < 9.0e18)
            return static_cast<qint64>(number);
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}
