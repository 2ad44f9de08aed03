#include "store/BackupRecord.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>
#include <QTimeZone>

namespace {

TEST(BackupRecordTest, TheStartKeepsItsOffsetAndMissingOrMisshapenValuesReadAsAbsent)
{
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 250), QTimeZone(3600));
    const BackupRecordRef record = BackupRecord::make(start, "/b", 1);
    EXPECT_EQ(record->stored().toMap().value("BackupDate"),
              QVariant(QString("2015-02-03T14:05:09.250+01:00")));
    EXPECT_EQ(record->backupDate(), start);

    const BackupRecordRef partial = BackupRecord::fromStored(QVariantMap{{"BackupFolder", "/b"}});
    EXPECT_EQ(partial->backupFolder(), QString("/b"));
    EXPECT_FALSE(partial->backupDate() || partial->backupSize());
    const BackupRecordRef wrong = BackupRecord::fromStored(
        QVariantMap{{"BackupDate", "last tuesday"}, {"BackupFolder", 42}, {"BackupSize", "big"}});
    EXPECT_FALSE(wrong->backupDate() || wrong->backupFolder() || wrong->backupSize());
    EXPECT_FALSE(BackupRecord::fromStored(QString("junk"))->backupFolder());
    // JSON numbers may come back as doubles: only whole ones are sizes.
    EXPECT_FALSE(BackupRecord::fromStored(QVariantMap{{"BackupSize", 1.5}})->backupSize());
    EXPECT_EQ(BackupRecord::fromStored(QVariantMap{{"BackupSize", 2048.0}})->backupSize(), 2048);
}

} // namespace
