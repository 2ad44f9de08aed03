#pragma once

#include <memory>
#include <optional>
#include <QDateTime>
#include <QString>
#include <QVariant>

class BackupRecord;
// Records are shared, never copied: the same object stands for one backup for the whole run, so an
// inspector window can be found again by the record's identity.
using BackupRecordRef = std::shared_ptr<const BackupRecord>;

// One finished backup: when it started, where its folder is, and the size counted before copying.
// Its stored form is a dictionary with exactly the keys BackupDate (ISO 8601 text with milliseconds and
// UTC offset), BackupFolder (text) and BackupSize (integer). A record read back from the preferences
// keeps its stored form untouched, so writing the list again never loses anything; a value of the wrong
// type reads as absent.
class BackupRecord {
public:
    static inline const QString kBackupDateKey = QStringLiteral("BackupDate");
    static inline const QString kBackupFolderKey = QStringLiteral("BackupFolder");
    static inline const QString kBackupSizeKey = QStringLiteral("BackupSize");

    static BackupRecordRef make(const QDateTime& backupDate, const QString& backupFolder, qint64 backupSize);
    static BackupRecordRef fromStored(const QVariant& stored);

    std::optional<QDateTime> backupDate() const;
    std::optional<QString> backupFolder() const;
    std::optional<qint64> backupSize() const;

    const QVariant& stored() const { return m_stored; }

    static QString storedDate(const QDateTime& date);
    static std::optional<QDateTime> dateFromStored(const QVariant& value);

private:
    explicit BackupRecord(QVariant stored);
    QVariant storedValue(const QString& key) const;

    QVariant m_stored;
};
