#include "platform/UserDefaults.h"

#include "support/QtPrinters.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace fs = std::filesystem;

namespace {

class UserDefaultsTest : public ::testing::Test {
protected:
    QString file() const { return UserDefaults::standardFilePath(); }
    QJsonObject fileContents() const
    {
        return QJsonDocument::fromJson(QByteArray::fromStdString(TreeBuilder::readFile(file().toStdString())))
            .object();
    }
    void writeRawFile(const QByteArray& text) const
    {
        TreeBuilder::writeFile(file().toStdString(), text.toStdString());
    }

    TestHome home;
};

TEST_F(UserDefaultsTest, RegisteredDefaultsAnswerReadsWhereNothingIsStoredAndAreNeverWritten)
{
    ASSERT_EQ(file(), QString::fromStdString((home.configHome() / "Pelmora" / "Pelmora.json").string()));
    UserDefaults(file()).setBoolForKey(false, "Stored");
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}, {"Other", false}, {"Stored", true}});
    EXPECT_TRUE(defaults.boolForKey("Flag"));
    EXPECT_FALSE(defaults.boolForKey("Other"));
    EXPECT_FALSE(defaults.boolForKey("Unknown"));
    EXPECT_FALSE(defaults.boolForKey("Stored")) << "a stored value wins over a default registered later";

    // Read from the disk while the store lives: each write is there at once, as a crash right after it
    // would find it.
    defaults.setBoolForKey(true, "Other");
    EXPECT_TRUE(fileContents().value("Other").toBool());
    EXPECT_FALSE(fileContents().contains("Flag"));
    defaults.removeObjectForKey("Stored");
    EXPECT_TRUE(defaults.boolForKey("Stored")) << "removing a key brings the default back";
    EXPECT_FALSE(fileContents().contains("Stored"));
    EXPECT_EQ(QDir(QFileInfo(file()).absolutePath()).entryList(QDir::Files | QDir::Hidden),
              QStringList{"Pelmora.json"})
        << "nothing is left beside the file";
}

TEST_F(UserDefaultsTest, AnUnreadableFileIsSetAsideAndTheStoreStartsEmpty)
{
    for (const QByteArray& broken :
         {QByteArray("{\"FirstLaunch\": fal"), QByteArray("\x00\xff garbage", 10), QByteArray("[1, 2, 3]")}) {
        SCOPED_TRACE(broken.toStdString());
        writeRawFile(broken);
        UserDefaults defaults(file());
        defaults.registerDefaults({{"FirstLaunch", true}});
        EXPECT_TRUE(defaults.boolForKey("FirstLaunch"));
        ASSERT_FALSE(defaults.setAsideFilePath().isEmpty());
        QFile kept(defaults.setAsideFilePath());
        ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
        EXPECT_EQ(kept.readAll(), broken) << "the unreadable file is kept as it was";
        kept.remove();

        defaults.setBoolForKey(false, "FirstLaunch");
        EXPECT_FALSE(UserDefaults(file()).boolForKey("FirstLaunch"));
    }
}

TEST_F(UserDefaultsTest, ValuesOfTheWrongShapeReadAsAbsent)
{
    writeRawFile(
        R"({"Flag": "yes", "Blob": "not base64 !!", "Number": 12, "List": {"a": 1}, "Text": ["x"]})");
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}});
    EXPECT_TRUE(defaults.boolForKey("Flag"));
    EXPECT_FALSE(defaults.dataForKey("Blob").has_value());
    EXPECT_FALSE(defaults.dataForKey("Number").has_value());
    EXPECT_FALSE(defaults.arrayForKey("List").has_value());
    EXPECT_TRUE(defaults.arrayForKey("Text").has_value());
}

// A folder where the file belongs, or a file where its folder does (which not even root can get past).
TEST_F(UserDefaultsTest, AWriteThatCannotReachTheDiskIsToldWithItsCauseAndTheNextSaveKeepsEverything)
{
    const fs::path preferences = file().toStdString(), folder = preferences.parent_path();
    for (const auto& [obstacle, cause] : {std::pair{preferences, EISDIR}, {folder, ENOTDIR}}) {
        SCOPED_TRACE(obstacle);
        if (cause == ENOTDIR)
            TreeBuilder::writeFile(folder, "in the way");
        else
            TreeBuilder::makeFolder(preferences);
        UserDefaults defaults(file());
        QList<UserDefaults::WriteFailure> told;
        defaults.setWriteFailureObserver(
            [&told](const UserDefaults::WriteFailure& failure) { told << failure; });
        defaults.registerDefaults({{"Flag", true}});

        EXPECT_FALSE(defaults.setBoolForKey(false, "Flag"));
        ASSERT_EQ(told.size(), 1);
        EXPECT_EQ(told[0].filePath, file());
        EXPECT_EQ(told[0].reason, qt_error_string(cause));
        ASSERT_TRUE(defaults.lastWriteFailure().has_value());
        EXPECT_EQ(defaults.lastWriteFailure()->reason, told[0].reason);
        EXPECT_FALSE(defaults.setObjectForKey(QVariantList{1, 2}, "List"));
        EXPECT_EQ(told.size(), 2) << "each failed write is told, not only the first";
        EXPECT_FALSE(defaults.boolForKey("Flag")) << "the values hold for the rest of the session";
        EXPECT_EQ(defaults.arrayForKey("List"), QVariantList({1, 2}));

        fs::remove_all(obstacle);
        const QByteArray blob("\x00\x01binary\xff", 9);
        EXPECT_TRUE(defaults.setDataForKey(blob, "Blob"));
        EXPECT_FALSE(defaults.lastWriteFailure().has_value());
        EXPECT_EQ(told.size(), 2);
        const QJsonObject saved = fileContents();
        EXPECT_EQ(saved.value("Flag"), QJsonValue(false))
            << "values whose own write failed are saved with the next one";
        EXPECT_EQ(saved.value("List").toArray(), QJsonArray({1, 2}));
        EXPECT_EQ(UserDefaults(file()).dataForKey("Blob"), blob);
        fs::remove_all(folder);
    }
}

} // namespace
