#include "store/iCloudPrefs.h"
#include "platform/UserDefaults.h"
#include "support/TestHome.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

std::unique_ptr<UserDefaults> openDefaults()
{
    auto defaults = std::make_unique<UserDefaults>(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(*defaults);
    return defaults;
}

QJsonObject storedObject()
{
    QFile in(UserDefaults::standardFilePath());
    return in.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(in.readAll()).object() : QJsonObject();
}

TEST(iCloudPrefsTest, BuiltInDefaultsAreNotStoredAndChangesLastIntoLaterRunsUnderTheirOwnKeys)
{
    TestHome home;
    {
        auto defaults = openDefaults();
        EXPECT_TRUE(iCloudPrefs::isFirstLaunch(*defaults));
        EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(*defaults));
        EXPECT_FALSE(defaults->dataForKey(iCloudPrefs::kHomeDirBookmarkDataKey).has_value());
        EXPECT_FALSE(defaults->arrayForKey(iCloudPrefs::kBackupsKey).has_value());
        EXPECT_TRUE(storedObject().isEmpty());

        iCloudPrefs::setFirstLaunch(*defaults, false);
        iCloudPrefs::setDontAskAgainRemoveBackup(*defaults, true);
        EXPECT_FALSE(iCloudPrefs::isFirstLaunch(*defaults));
    }
    auto later = openDefaults();
    EXPECT_FALSE(iCloudPrefs::isFirstLaunch(*later));
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(*later));
    const QJsonObject stored = storedObject();
    EXPECT_EQ(stored.value("FirstLaunch"), QJsonValue(false));
    EXPECT_EQ(stored.value("DontAskMeAgainRemoveBackup"), QJsonValue(true));
}

} // namespace
