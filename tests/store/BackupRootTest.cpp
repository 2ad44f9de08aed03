#include "store/BackupRoot.h"
#include "support/TestHome.h"

#include <QDir>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

TEST(BackupRootTest, IsTheBundleNameInsideTheUsersDataFolder)
{
    TestHome home;
    EXPECT_EQ(BackupRoot::path(), QString::fromStdString((home.dataHome() / "Pelmora").string()));
    EXPECT_TRUE(QDir(QString::fromStdString(home.dataHome().string())).exists());
    EXPECT_FALSE(QDir(BackupRoot::path()).exists()) << "the root appears with the first backup folder";
}

TEST(BackupRootTest, FolderNamesAreTheLocalStartTimeToTheSecondInTheUsersLocale)
{
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 999));
    EXPECT_EQ(BackupRoot::folderName(start, QLocale::c()), "2015.02.03-14.05.09");
    EXPECT_EQ(BackupRoot::folderName(start.addMSecs(-999), QLocale::c()), "2015.02.03-14.05.09")
        << "two backups in the same second share one folder";
    EXPECT_EQ(BackupRoot::folderName(start.addMSecs(1), QLocale::c()), "2015.02.03-14.05.10");
    EXPECT_EQ(BackupRoot::folderName(start.toUTC(), QLocale::c()), "2015.02.03-14.05.09")
        << "an instant given in another zone is named in local time";
    const QLocale arabic(QLocale::Arabic, QLocale::Egypt);
    const QString name = BackupRoot::folderName(start, arabic);
    EXPECT_EQ(name, arabic.toString(start, "yyyy.MM.dd-HH.mm.ss"));
    EXPECT_EQ(name.size(), 19);
}

} // namespace
