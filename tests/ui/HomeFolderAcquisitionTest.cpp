#include "ui/home/HomeFolderAcquisition.h"

#include "platform/Bookmark.h"
#include "support/MainWindowFixture.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

TEST(SandboxTest, IsDecidedByTheNumberOfComponentsInTheProcessHomeUnlessItIsTheUsersOwnHome)
{
    ScriptedPasswordDatabase passwords;
    for (const char* home : {"/Users/jane", "/home/jane/", "/tmp/pelmora-abc123", "/root"})
        EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome(home, passwords)) << home;
    for (const char* home : {"/home/jane/.var", "/Users/jane/Library/Containers/com.example.app/Data"})
        EXPECT_TRUE(HomeFolderAcquisition::isSandboxedHome(home, passwords)) << home;

    passwords.home = "/home/example.com/alice";
    for (const char* home : {"/home/example.com/alice", "/home/example.com/alice/"})
        EXPECT_FALSE(HomeFolderAcquisition::isSandboxedHome(home, passwords)) << home;
    EXPECT_TRUE(HomeFolderAcquisition::isSandboxedHome("/home/example.com/alice/.var/app/Data", passwords));
    EXPECT_TRUE(HomeFolderAcquisition::isSandboxedHome("/home/example.com/bob", passwords));
}

// The user's real home is a folder "jane" inside the test's home; the process home is elsewhere.
class HomeFolderAcquisitionTest : public TestWorld {
protected:
    HomeFolderAcquisitionTest()
    {
        TreeBuilder::makeFolder(realHome.toStdString());
        passwords.home = realHome.toStdString();
    }
    HomeFolderOutcome run(bool sandboxed) { return acquisition.run(sandboxed, "/tmp/elsewhere"); }
    static QJsonObject storedObject()
    {
        QFile in(UserDefaults::standardFilePath());
        return in.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(in.readAll()).object() : QJsonObject();
    }

    const QString realHome = QString::fromStdString((home.path() / "jane").string());
    HomeFolderAcquisition acquisition{defaults, chooser, passwords};
};

TEST_F(HomeFolderAcquisitionTest, FirstSandboxedLaunchWithTheRealHomeStoresABookmarkThatLaterLaunchesResolve)
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

    chooser.titles.clear();
    EXPECT_EQ(run(true).homeDirectory, realHome);
    EXPECT_TRUE(chooser.titles.isEmpty()) << "the next launch resolves the bookmark without asking";

    TreeBuilder::removeTree(realHome.toStdString());
    const HomeFolderOutcome afterRemoval = run(true);
    EXPECT_FALSE(afterRemoval.homeDirectory.has_value());
    EXPECT_FALSE(afterRemoval.endLaunchEarly);
}

TEST_F(HomeFolderAcquisitionTest, FirstSandboxedLaunchCancelledIsNotAskedAgainAndABadBookmarkGivesNoHome)
{
    const HomeFolderOutcome outcome = run(true);
    EXPECT_FALSE(outcome.homeDirectory.has_value());
    EXPECT_FALSE(outcome.endLaunchEarly);
    EXPECT_EQ(storedObject().value("FirstLaunch"), QJsonValue(false));

    EXPECT_FALSE(run(true).homeDirectory.has_value());
    EXPECT_EQ(chooser.titles.size(), 1);

    defaults.setDataForKey("not a bookmark", iCloudPrefs::kHomeDirBookmarkDataKey);
    EXPECT_FALSE(run(true).homeDirectory.has_value());
}

} // namespace
