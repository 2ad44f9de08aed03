#include "store/iCloudPrefs.h"
#include "store/BackupStore.h"
#include "platform/UserDefaults.h"
#include "support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

class BackupStoreTest : public ::testing::Test {
protected:
    BackupRecordRef record(int n) const
    {
        return BackupRecord::make(QDateTime::fromSecsSinceEpoch(1600000000 + n),
                                  QString("/backups/%1").arg(n), n * 1000);
    }
    // The store as a later run of the program reads it.
    std::unique_ptr<BackupStore> reloaded()
    {
        later = std::make_unique<UserDefaults>(UserDefaults::standardFilePath());
        auto loaded = std::make_unique<BackupStore>(*later);
        loaded->load();
        return loaded;
    }
    QStringList storedFolders()
    {
        const auto loaded = reloaded();
        QStringList folders;
        for (const BackupRecordRef& r : loaded->records())
            folders << r->backupFolder().value_or("<none>");
        return folders;
    }

    // What the preferences file holds, read as plain JSON: another UserDefaults in this process would share
    // QSettings' in-memory state of the file and answer with changes that never reached the disk.
    QStringList foldersOnDisk() const
    {
        QFile file(UserDefaults::standardFilePath());
        if (!file.open(QIODevice::ReadOnly))
            return {"<unreadable>"};
        QStringList folders;
        for (const QJsonValue& element : QJsonDocument::fromJson(file.readAll()).object().value("Backups").toArray())
            folders << element.toObject().value("BackupFolder").toString("<none>");
        return folders;
    }
    static QStringList foldersOf(const BackupStore& backups)
    {
        QStringList folders;
        for (const BackupRecordRef& r : backups.records())
            folders << r->backupFolder().value_or("<none>");
        return folders;
    }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    std::unique_ptr<UserDefaults> later;
    BackupStore store{defaults};
};

TEST_F(BackupStoreTest, RecordsStayInCompletionOrderThroughAppendsAndRemovals)
{
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
    // Two backups of one folder are two records.
    store.append(BackupRecord::make(record(4)->backupDate()->addMSecs(400), "/backups/4", 1));
    EXPECT_EQ(storedFolders(), QStringList({"/backups/2", "/backups/4", "/backups/4"}));
}

TEST_F(BackupStoreTest, ARecordIsStoredReadablyByAPersonAndReadBackUnchanged)
{
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 250), QTimeZone(0));
    // A size beyond a double's precision.
    store.append(BackupRecord::make(start, "/backups/2015.02.03-14.05.09", 9007199254740993));

    QFile file(UserDefaults::standardFilePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(text.contains("\"BackupDate\": \"2015-02-03T14:05:09.250Z\"")) << text.toStdString();
    EXPECT_TRUE(text.contains("\"BackupFolder\": \"/backups/2015.02.03-14.05.09\""));
    EXPECT_TRUE(text.contains("\"BackupSize\": 9007199254740993"));
    const auto stored = reloaded();
    ASSERT_EQ(stored->count(), 1);
    EXPECT_EQ(stored->at(0)->backupDate(), start);
    EXPECT_EQ(stored->at(0)->backupSize(), 9007199254740993);
}

TEST_F(BackupStoreTest, NothingOrAValueThatIsNotAListIsNoBackupsAndOtherElementsAreKeptUnchanged)
{
    store.load();
    EXPECT_TRUE(store.isEmpty());
    EXPECT_EQ(store.last(), nullptr);
    defaults.setObjectForKey(QString("not a list"), iCloudPrefs::kBackupsKey);
    store.load();
    EXPECT_TRUE(store.isEmpty());

    defaults.setObjectForKey(
        QVariantList{QString("junk"), QVariantMap{{"BackupFolder", "/old"}, {"Extra", 7}}},
        iCloudPrefs::kBackupsKey);
    store.load();
    ASSERT_EQ(store.count(), 2);
    EXPECT_FALSE(store.at(0)->backupFolder().has_value());
    store.append(record(5));

    const QVariantList stored = UserDefaults(UserDefaults::standardFilePath()).arrayForKey("Backups").value();
    ASSERT_EQ(stored.size(), 3);
    EXPECT_EQ(stored.at(0), QVariant(QString("junk")));
    EXPECT_EQ(stored.at(1).toMap().value("Extra").toInt(), 7);
}

TEST_F(BackupStoreTest, AChangeThatCannotBeSavedStaysInMemoryAndTheNextSaveWritesTheWholeList)
{
    store.load();
    ASSERT_TRUE(store.append(record(1)));
    ASSERT_TRUE(store.append(record(2)));
    EXPECT_EQ(foldersOnDisk(), QStringList({"/backups/1", "/backups/2"}));

    // A folder where the preferences file belongs: no one can write the file.
    const QString file = UserDefaults::standardFilePath();
    ASSERT_TRUE(QFile::remove(file));
    ASSERT_TRUE(QDir().mkpath(file));
    EXPECT_FALSE(store.append(record(3)));
    EXPECT_FALSE(store.removeAt(0));
    EXPECT_EQ(foldersOf(store), QStringList({"/backups/2", "/backups/3"}));
    EXPECT_TRUE(defaults.lastWriteFailure().has_value());

    ASSERT_TRUE(QDir(file).removeRecursively());
    EXPECT_TRUE(store.append(record(4)));
    EXPECT_EQ(foldersOnDisk(), QStringList({"/backups/2", "/backups/3", "/backups/4"}));
}

} // namespace
