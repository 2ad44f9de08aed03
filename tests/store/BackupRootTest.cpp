#include "store/BackupRoot.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace {

TEST(BackupRootTest, FolderNamesAreTheLocalStartTimeToTheSecondInTheLocalesDigits)
{
    const QDateTime start(QDate(2015, 2, 3), QTime(14, 5, 9, 999));
    // Two backups in the same second share one folder; an instant given in another zone is named in local
    // time.
    for (const QDateTime& sameSecond : {start, start.addMSecs(-999), start.toUTC()})
        EXPECT_EQ(BackupRoot::folderName(sameSecond, QLocale::c()), "2015.02.03-14.05.09");
    EXPECT_EQ(BackupRoot::folderName(start.addMSecs(1), QLocale::c()), "2015.02.03-14.05.10");
    EXPECT_EQ(
        BackupRoot::folderName(start, QLocale(QLocale::Arabic, QLocale::Egypt)),
        QString::fromUtf8(
            "\u0662\u0660\u0661\u0665.\u0660\u0662.\u0660\u0663-\u0661\u0664.\u0660\u0665.\u0660\u0669"));
}

} // namespace
