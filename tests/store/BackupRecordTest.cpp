#include "store/BackupRecord.h"

#include <QTimeZone>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

TEST(BackupRecordTest, HoldsExactlyItsThreeKeysWithTheirTypesAndTheSameInstantInAnyTimeZone)
{
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 250), QTimeZone(3600));
    const BackupRecordRef record =
        BackupRecord::make(start, "/home/jane/.local/share/Pelmora/x", 1234567890123);

    const QVariantMap stored = record->stored().toMap();
    EXPECT_EQ(stored.keys(), QStringList({"BackupDate", "BackupFolder", "BackupSize"}));
    EXPECT_EQ(stored.value("BackupDate"), QVariant(QString("2015-02-03T14:05:09.250+01:00")));
    EXPECT_EQ(stored.value("BackupSize").typeId(), QMetaType::LongLong);
    EXPECT_EQ(record->backupDate(), start);
    EXPECT_EQ(record->backupFolder(), QString("/home/jane/.local/share/Pelmora/x"));
    EXPECT_EQ(record->backupSize(), 1234567890123);

    const QDateTime utc = QDateTime::fromMSecsSinceEpoch(1700000000123, QTimeZone::utc());
    EXPECT_EQ(BackupRecord::make(utc.toLocalTime(), "f", 0)->backupDate()->toMSecsSinceEpoch(),
              1700000000123);
}

TEST(BackupRecordTest, MissingOrMisshapenValuesReadAsAbsent)
{
    const BackupRecordRef partial = BackupRecord::fromStored(QVariantMap{{"BackupFolder", "/b"}});
    EXPECT_FALSE(partial->backupDate().has_value());
    EXPECT_EQ(partial->backupFolder(), QString("/b"));
    EXPECT_FALSE(partial->backupSize().has_value());

    const BackupRecordRef wrong = BackupRecord::fromStored(
        QVariantMap{{"BackupDate", "last tuesday"}, {"BackupFolder", 42}, {"BackupSize", "big"}});
    EXPECT_FALSE(wrong->backupDate().has_value());
    EXPECT_FALSE(wrong->backupFolder().has_value());
    EXPECT_FALSE(wrong->backupSize().has_value());

    EXPECT_FALSE(BackupRecord::fromStored(QVariantMap{{"BackupSize", 1.5}})->backupSize().has_value());
    EXPECT_EQ(BackupRecord::fromStored(QVariantMap{{"BackupSize", 2048.0}})->backupSize(), 2048);

    const BackupRecordRef notADictionary = BackupRecord::fromStored(QString("junk"));
    EXPECT_FALSE(notADictionary->backupFolder().has_value());
    EXPECT_EQ(notADictionary->stored(), QVariant(QString("junk")));
}

} // namespace
