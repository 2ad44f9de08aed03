#include "store/BackupStore.h"

#include "platform/UserDefaults.h"
#include "store/iCloudPrefs.h"
#include "support/QtPrinters.h"
#include "support/TestHome.h"

#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>

namespace {

class BackupStoreTest : public ::testing::Test {
protected:
    static BackupRecordRef record(int n)
    {
        return BackupRecord::make(QDateTime::fromSecsSinceEpoch(1600000000 + n),
                                  QString("/backups/%1").arg(n), n);
    }
    // The preferences file read as plain JSON: another UserDefaults in this process would share QSettings'
    // in-memory state of the file and answer with changes that never reached the disk.
    static QByteArray fileText()
    {
        QFile file(UserDefaults::standardFilePath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
    }
    static QJsonArray onDisk()
    {
        return QJsonDocument::fromJson(fileText()).object().value("Backups").toArray();
    }
    static QStringList folders(const QList<BackupRecordRef>& records)
    {
        QStringList folders;
        for (const BackupRecordRef& r : records)
            folders << r->backupFolder().value_or("<none>");
        return folders;
    }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    BackupStore store{defaults};
};

TEST_F(BackupStoreTest, RecordsKeepCompletionOrderAndAChangeThatCannotBeSavedIsWrittenByTheNextSave)
{
    store.load();
    EXPECT_EQ(store.last(), nullptr);
    for (int n : {1, 2, 3})
        ASSERT_TRUE(store.append(record(n)));
    store.removeAt(0);

    // A folder where the preferences file belongs: no one can write the file.
    const QString file = UserDefaults::standardFilePath();
    ASSERT_TRUE(QFile::remove(file) && QDir().mkpath(file));
    EXPECT_FALSE(store.append(record(4)));
    EXPECT_FALSE(store.removeAt(1));
    EXPECT_EQ(folders(store.records()), QStringList({"/backups/2", "/backups/4"}));

    ASSERT_TRUE(QDir(file).removeRecursively());
    // Two backups of one folder are two records.
    EXPECT_TRUE(store.append(BackupRecord::make(record(4)->backupDate()->addMSecs(400), "/backups/4", 9)));
    QStringList onDiskFolders;
    for (const QJsonValue& element : onDisk())
        onDiskFolders << element.toObject().value("BackupFolder").toString();
    EXPECT_EQ(onDiskFolders, QStringList({"/backups/2", "/backups/4", "/backups/4"}));
    EXPECT_EQ(store.last()->backupSize(), 9);
}

TEST_F(BackupStoreTest, RecordsAreStoredReadablyAndReadBackUnchangedBesideMalformedElementsThatAreKept)
{
    defaults.setObjectForKey(QString("not a list"), iCloudPrefs::kBackupsKey);
    store.load();
    EXPECT_TRUE(store.isEmpty());
    defaults.setObjectForKey(
        QVariantList{QString("junk"), QVariantMap{{"BackupFolder", "/old"}, {"Extra", 7}}},
        iCloudPrefs::kBackupsKey);
    store.load();
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 250), QTimeZone(0));
    store.append(
        BackupRecord::make(start, "/backups/2015.02.03-14.05.09", 9007199254740993)); // beyond a double

    const QByteArray text = fileText();
    for (const char* line :
         {"\"BackupDate\": \"2015-02-03T14:05:09.250Z\"",
          "\"BackupFolder\": \"/backups/2015.02.03-14.05.09\"", "\"BackupSize\": 9007199254740993"})
        EXPECT_TRUE(text.contains(line)) << text.toStdString();
    EXPECT_EQ(onDisk().at(2).toObject().keys(), QStringList({"BackupDate", "BackupFolder", "BackupSize"}));
    EXPECT_EQ(onDisk().at(0), QJsonValue("junk"));
    EXPECT_EQ(onDisk().at(1).toObject().value("Extra"), QJsonValue(7));
    UserDefaults later(UserDefaults::standardFilePath());
    BackupStore reloaded(later);
    reloaded.load();
    EXPECT_EQ(folders(reloaded.records()), QStringList({"<none>", "/old", "/backups/2015.02.03-14.05.09"}));
    EXPECT_EQ(reloaded.last()->backupDate(), start);
    EXPECT_EQ(reloaded.last()->backupSize(), 9007199254740993);
}

} // namespace
