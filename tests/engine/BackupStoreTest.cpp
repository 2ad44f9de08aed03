#include "app/iCloudPrefs.h"
#include "engine/BackupStore.h"
#include "platform/UserDefaults.h"
#include "support/TestHome.h"

#include <QFile>
#include <QTimeZone>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

class BackupStoreTest : public ::testing::Test {
protected:
    BackupRecordRef record(int n) const
    {
        return BackupRecord::make(QDateTime::fromSecsSinceEpoch(1600000000 + n), QString("/backups/%1").arg(n),
                                  n * 1000);
    }
    // The list as a later run of the program reads it.
    QStringList storedFolders() const
    {
        UserDefaults later(UserDefaults::standardFilePath());
        BackupStore store(later);
        store.load();
        QStringList folders;
        for (const BackupRecordRef& r : store.records())
            folders << r->backupFolder().value_or("<none>");
        return folders;
    }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
};

TEST_F(BackupStoreTest, AFreshUserHasNoBackups)
{
    BackupStore store(defaults);
    store.load();
    EXPECT_TRUE(store.isEmpty());
    EXPECT_EQ(store.last(), nullptr);
}

TEST_F(BackupStoreTest, RecordsStayInCompletionOrderThroughAppendsAndRemovals)
{
    BackupStore store(defaults);
    store.load();
    store.append(record(1));
    EXPECT_EQ(storedFolders(), QStringList({"/backups/1"}));
    store.append(record(2));
    store.append(record(3));
    store.removeAt(0);
    EXPECT_EQ(storedFolders(), QStringList({"/backups/2", "/backups/3"}));
    store.append(record(4));
    store.removeAt(1);
    EXPECT_EQ(storedFolders(), QStringList({"/backups/2", "/backups/4"}));
    EXPECT_EQ(store.last()->backupFolder(), QString("/backups/4"));
}

TEST_F(BackupStoreTest, ARecordReadBackEqualsTheOneWritten)
{
    BackupStore store(defaults);
    const QDateTime start = QDateTime::currentDateTime();
    store.append(BackupRecord::make(start, "/backups/now", 9007199254740993)); // beyond a double's precision

    UserDefaults later(UserDefaults::standardFilePath());
    BackupStore reloaded(later);
    reloaded.load();
    ASSERT_EQ(reloaded.count(), 1);
    EXPECT_EQ(reloaded.at(0)->backupDate(), start);
    EXPECT_EQ(reloaded.at(0)->backupSize(), 9007199254740993);
}

TEST_F(BackupStoreTest, TwoBackupsOfOneFolderAreTwoRecords)
{
    BackupStore store(defaults);
    const QDateTime second = QDateTime::fromSecsSinceEpoch(1700000000);
    store.append(BackupRecord::make(second, "/backups/same", 1));
    store.append(BackupRecord::make(second.addMSecs(400), "/backups/same", 1));
    EXPECT_EQ(storedFolders(), QStringList({"/backups/same", "/backups/same"}));
}

TEST_F(BackupStoreTest, TheFileIsReadableByAPerson)
{
    BackupStore store(defaults);
    store.append(BackupRecord::make(QDateTime(QDate(2015, 2, 3), QTime(14, 5, 9), QTimeZone(0)),
                                    "/backups/2015.02.03-14.05.09", 4096));
    QFile file(UserDefaults::standardFilePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(text.contains("\"BackupDate\": \"2015-02-03T14:05:09.000Z\"")) << text.toStdString();
    EXPECT_TRUE(text.contains("\"BackupFolder\": \"/backups/2015.02.03-14.05.09\""));
    EXPECT_TRUE(text.contains("\"BackupSize\": 4096"));
}

TEST_F(BackupStoreTest, ElementsOfAnotherShapeAreKeptAndWrittenBackUnchanged)
{
    defaults.setObjectForKey(QVariantList{QString("junk"), QVariantMap{{"BackupFolder", "/old"}, {"Extra", 7}}},
                             iCloudPrefs::kBackupsKey);
    BackupStore store(defaults);
    store.load();
    ASSERT_EQ(store.count(), 2);
    EXPECT_FALSE(store.at(0)->backupFolder().has_value());
    store.append(record(5));

    const QVariantList stored = UserDefaults(UserDefaults::standardFilePath()).arrayForKey("Backups").value();
    ASSERT_EQ(stored.size(), 3);
    EXPECT_EQ(stored.at(0), QVariant(QString("junk")));
    EXPECT_EQ(stored.at(1).toMap().value("Extra").toInt(), 7);
}

TEST_F(BackupStoreTest, ABackupsValueThatIsNotAListMeansNoBackups)
{
    defaults.setObjectForKey(QString("not a list"), iCloudPrefs::kBackupsKey);
    BackupStore store(defaults);
    store.load();
    EXPECT_TRUE(store.isEmpty());
}

} // namespace
