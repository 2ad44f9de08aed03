#include "platform/UserDefaults.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"
#include <sys/wait.h>
#include <unistd.h>

namespace {

class UserDefaultsTest : public ::testing::Test {
protected:
    QString file() const { return UserDefaults::standardFilePath(); }
    QJsonObject fileContents() const
    {
        QFile in(file());
        if (!in.open(QIODevice::ReadOnly))
            return {};
        return QJsonDocument::fromJson(in.readAll()).object();
    }
    void writeRawFile(const QByteArray& text) const
    {
        QDir().mkpath(QFileInfo(file()).absolutePath());
        QFile out(file());
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(text);
    }

    TestHome home;
};

TEST_F(UserDefaultsTest, RegisteredDefaultsAnswerReadsButAreNeverWritten)
{
    ASSERT_EQ(file(), QString::fromStdString((home.configHome() / "Pelmora" / "Pelmora.json").string()));
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}, {"Other", false}});
    EXPECT_TRUE(defaults.boolForKey("Flag"));
    EXPECT_FALSE(defaults.boolForKey("Other"));
    EXPECT_FALSE(defaults.boolForKey("Unknown"));

    defaults.setBoolForKey(true, "Other");
    const QJsonObject stored = fileContents();
    EXPECT_TRUE(stored.value("Other").toBool());
    EXPECT_FALSE(stored.contains("Flag"));
}

TEST_F(UserDefaultsTest, StoredValuesWinOverDefaultsRegisteredLater)
{
    UserDefaults(file()).setBoolForKey(false, "Flag");
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}});
    EXPECT_FALSE(defaults.boolForKey("Flag"));
}

TEST_F(UserDefaultsTest, AWriteIsOnDiskBeforeTheCallReturns)
{
    UserDefaults defaults(file());
    defaults.setDataForKey(QByteArray("\x00\x01binary\xff", 9), "Blob");
    // Read by a second store while the first is still alive: nothing waits for a later flush.
    UserDefaults reader(file());
    EXPECT_EQ(reader.dataForKey("Blob"), QByteArray("\x00\x01binary\xff", 9));

    QDir folder(QFileInfo(file()).absolutePath());
    QStringList leftovers = folder.entryList(QDir::Files | QDir::Hidden);
    leftovers.removeAll("Pelmora.json");
    leftovers.removeAll("Pelmora.json.lock");
    EXPECT_TRUE(leftovers.isEmpty()) << leftovers.join(", ").toStdString();
}

TEST_F(UserDefaultsTest, AProcessThatDiesRightAfterAWriteKeepsIt)
{
    const QString path = file();
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        UserDefaults defaults(path);
        defaults.setBoolForKey(true, "Written");
        ::_exit(0); // no destructors, no orderly shutdown
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(UserDefaults(path).boolForKey("Written"));
}

TEST_F(UserDefaultsTest, AnUnreadableFileIsSetAsideAndTheStoreStartsEmpty)
{
    for (const QByteArray& broken : {QByteArray("{\"FirstLaunch\": fal"), QByteArray("\x00\xff garbage", 10),
                                     QByteArray("[1, 2, 3]")}) {
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
    writeRawFile(R"({"Flag": "yes", "Blob": "not base64 !!", "Number": 12, "List": {"a": 1}, "Text": ["x"]})");
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}});
    EXPECT_TRUE(defaults.boolForKey("Flag"));
    EXPECT_FALSE(defaults.dataForKey("Blob").has_value());
    EXPECT_FALSE(defaults.dataForKey("Number").has_value());
    EXPECT_FALSE(defaults.arrayForKey("List").has_value());
    EXPECT_FALSE(defaults.arrayForKey("Number").has_value());
    EXPECT_TRUE(defaults.arrayForKey("Text").has_value());
    EXPECT_FALSE(defaults.arrayForKey("Missing").has_value());
}

TEST_F(UserDefaultsTest, RemovingAKeyBringsTheDefaultBack)
{
    UserDefaults defaults(file());
    defaults.registerDefaults({{"Flag", true}});
    defaults.setBoolForKey(false, "Flag");
    defaults.removeObjectForKey("Flag");
    EXPECT_TRUE(defaults.boolForKey("Flag"));
    EXPECT_FALSE(fileContents().contains("Flag"));
}

} // namespace
