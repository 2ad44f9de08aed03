#include "Helpers/Localizer.h"
#include "app/HomeFolderAcquisition.h"
#include "app/iCloudPrefs.h"
#include "platform/Bookmark.h"
#include "platform/FolderChooser.h"
#include "platform/PasswordDatabase.h"
#include "platform/UserDefaults.h"
#include "support/ScriptedChoosers.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

class HomeFolderAcquisitionTest : public ::testing::Test {
protected:
    HomeFolderAcquisitionTest()
    {
        Localizer::Resources english;
        english.userLanguages = QStringList{"en"};
        Localizer::setResources(english);
        iCloudPrefs::registerDefaults(defaults);
        realHome = QString::fromStdString((home.path() / "jane").string());
        TreeBuilder::makeFolder(realHome.toStdString());
        passwords.home = realHome.toStdString();
    }
    HomeFolderOutcome run(bool sandboxed) { return acquisition.run(sandboxed, "/tmp/elsewhere"); }
    QJsonObject storedObject() const
    {
        QFile in(UserDefaults::standardFilePath());
        return in.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(in.readAll()).object() : QJsonObject();
    }

    TestHome home;
    QString realHome;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    ScriptedFolderChooser chooser;
    ScriptedPasswordDatabase passwords;
    HomeFolderAcquisition acquisition{defaults, chooser, passwords};
};

TEST(SandboxTest, IsDecidedByTheNumberOfComponentsInTheProcessHome)
{
    EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome("/Users/jane"));
    EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome("/home/jane/"));
    EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome("/tmp/pelmora-abc123"));
    EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome("/root"));
    EXPECT_TRUE(HomeFolderAcquisition::isSandboxedHome("/home/jane/.var"));
    EXPECT_TRUE(HomeFolderAcquisition::isSandboxedHome("/Users/jane/Library/Containers/com.example.app/Data"));
}

TEST_F(HomeFolderAcquisitionTest, OutsideASandboxTheProcessHomeIsUsedAndNothingIsAsked)
{
    const HomeFolderOutcome outcome = run(false);
    EXPECT_EQ(outcome.homeDirectory, QString("/tmp/elsewhere"));
    EXPECT_FALSE(outcome.endLaunchEarly);
    EXPECT_TRUE(chooser.titles.isEmpty());
    EXPECT_FALSE(storedObject().contains("FirstLaunch"));
    EXPECT_EQ(HomeFolderAcquisition::mobileDocumentsDirectory(*outcome.homeDirectory),
              "/tmp/elsewhere/Library/Mobile Documents");
}

TEST_F(HomeFolderAcquisitionTest, FirstSandboxedLaunchWithTheRealHomeStoresABookmark)
{
    chooser.answer = realHome;
    const HomeFolderOutcome outcome = run(true);

    EXPECT_EQ(outcome.homeDirectory, realHome);
    EXPECT_FALSE(outcome.endLaunchEarly);
    EXPECT_EQ(chooser.titles, QStringList({"Choose Your Home Folder"}));
    EXPECT_FALSE(iCloudPrefs::isFirstLaunch(defaults));
    const std::optional<QByteArray> bookmark = defaults.dataForKey(iCloudPrefs::kHomeDirBookmarkDataKey);
    ASSERT_TRUE(bookmark.has_value());
    EXPECT_EQ(Bookmark::resolve(bookmark->toStdString()), realHome.toStdString());

    // The next launch resolves the bookmark without asking.
    chooser.titles.clear();
    EXPECT_EQ(run(true).homeDirectory, realHome);
    EXPECT_TRUE(chooser.titles.isEmpty());
}

TEST_F(HomeFolderAcquisitionTest, FirstSandboxedLaunchWithAnotherFolderEndsTheLaunchEarly)
{
    chooser.answer = QString::fromStdString(home.path().string());
    const HomeFolderOutcome outcome = run(true);

    EXPECT_FALSE(outcome.homeDirectory.has_value());
    EXPECT_TRUE(outcome.endLaunchEarly);
    EXPECT_FALSE(iCloudPrefs::isFirstLaunch(defaults));
    EXPECT_FALSE(storedObject().contains("HomeDirBookmarkData"));
}

TEST_F(HomeFolderAcquisitionTest, FirstSandboxedLaunchCancelledIsNotAskedAgain)
{
    const HomeFolderOutcome outcome = run(true);
    EXPECT_FALSE(outcome.homeDirectory.has_value());
    EXPECT_FALSE(outcome.endLaunchEarly);
    EXPECT_EQ(storedObject().value("FirstLaunch"), QJsonValue(false));

    const HomeFolderOutcome later = run(true);
    EXPECT_FALSE(later.homeDirectory.has_value());
    EXPECT_EQ(chooser.titles.size(), 1);
}

TEST_F(HomeFolderAcquisitionTest, ABookmarkWhoseFolderWasRemovedGivesNoHome)
{
    chooser.answer = realHome;
    ASSERT_TRUE(run(true).homeDirectory.has_value());
    TreeBuilder::removeTree(realHome.toStdString());

    const HomeFolderOutcome later = run(true);
    EXPECT_FALSE(later.homeDirectory.has_value());
    EXPECT_FALSE(later.endLaunchEarly);
}

TEST_F(HomeFolderAcquisitionTest, AMalformedBookmarkGivesNoHome)
{
    iCloudPrefs::setFirstLaunch(defaults, false);
    defaults.setDataForKey("not a bookmark", iCloudPrefs::kHomeDirBookmarkDataKey);
    EXPECT_FALSE(run(true).homeDirectory.has_value());
}

} // namespace
