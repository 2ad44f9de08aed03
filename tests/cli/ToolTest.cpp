// The command-line tool run as a process in a temporary home, as a user or a timer runs it.
#include "cli/ProgressPrinter.h"
#include "platform/UserDefaults.h"
#include "store/BackupRecord.h"
#include "store/BackupStore.h"
#include "support/EventLoop.h"
#include "support/PrivateSessionBus.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TreeBuilder;

namespace {

struct Finished {
    int status = -1;
    QString out;
    QString err;
};

class ToolTest : public ::testing::Test {
protected:
    fs::path iCloud() const { return home.path() / "Library" / "Mobile Documents"; }
    fs::path backupRoot() const { return home.dataHome() / "Pelmora"; }

    static QString toolPath() { return QStringLiteral(PELMORA_BINARY_DIR "/pelmora"); }

    // Run with the event loop turning, so that a bus service of the test's own can answer the tool.
    Finished tool(const QStringList& arguments,
                  const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(toolPath(), arguments);
        EXPECT_TRUE(runEventLoopUntil([&] { return process.state() == QProcess::NotRunning; }, 60000));
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << "no crash";
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    std::vector<std::string> backupFolders() const
    {
        std::vector<std::string> names;
        if (fs::exists(backupRoot()))
            for (const auto& entry : fs::directory_iterator(backupRoot()))
                names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    QList<BackupRecordRef> records() const
    {
        UserDefaults defaults(UserDefaults::standardFilePath());
        BackupStore store(defaults);
        store.load();
        return store.records();
    }

    // One line, naming what stopped the tool.
    static void expectRefusal(const Finished& finished, const char* naming)
    {
        EXPECT_EQ(finished.status, 2) << finished.err.toStdString();
        EXPECT_EQ(finished.err.count(QLatin1Char('\n')), 1) << finished.err.toStdString();
        EXPECT_TRUE(finished.err.startsWith(QLatin1String("pelmora: ")));
        EXPECT_TRUE(finished.err.contains(QLatin1String(naming))) << finished.err.toStdString();
    }

    TestHome home;
};

TEST_F(ToolTest, BacksUpListsComparesRestoresAndDeletesWithoutTheWindow)
{
    writeItems(iCloud(),
               {"com~apple~CloudDocs/kept.txt=kept", "com~apple~CloudDocs/edited.txt=before",
                "com~apple~CloudDocs/removed.txt=removed", "iCloud~com~example~Notes/n.txt=n"},
               timespec{1700000000, 1});

    const Finished backup = tool({"backup"});
    ASSERT_EQ(backup.status, 0) << backup.err.toStdString();
    ASSERT_EQ(records().size(), 1);
    const fs::path folder = QFile::encodeName(*records().at(0)->backupFolder()).toStdString();
    EXPECT_TRUE(backup.out.contains(QFile::decodeName(folder.c_str()))) << backup.out.toStdString();
    EXPECT_EQ(contents(folder), contents(iCloud()));
    EXPECT_EQ(backupFolders(), std::vector<std::string>{folder.filename()}) << "no mark left beside it";
    EXPECT_TRUE(backup.err.contains(QLatin1String("4 of 4 files")))
        << "plain progress lines when not on a terminal";

    const Finished list = tool({"list", "--json"});
    EXPECT_EQ(list.status, 0);
    const QJsonArray listed = QJsonDocument::fromJson(list.out.toUtf8()).array();
    ASSERT_EQ(listed.size(), 1);
    EXPECT_EQ(listed[0].toObject()[QLatin1String("name")].toString(),
              QFile::decodeName(folder.filename().c_str()));
    EXPECT_EQ(listed[0].toObject()[QLatin1String("size")].toInt(), 18);
    EXPECT_TRUE(tool({"list"}).out.startsWith(QFile::decodeName(folder.filename().c_str())));

    writeItems(iCloud(), {"com~apple~CloudDocs/added.txt=added", "com~apple~CloudDocs/edited.txt=after!"});
    fs::remove(iCloud() / "com~apple~CloudDocs/removed.txt");
    const Items changed = contents(iCloud());
    const Finished compare = tool({"compare", "latest"});
    EXPECT_EQ(compare.status, 0);
    EXPECT_EQ(compare.out,
              QStringLiteral("+ com~apple~CloudDocs/added.txt\n~ com~apple~CloudDocs/edited.txt\n"
                             "- com~apple~CloudDocs/removed.txt\n"));
    EXPECT_TRUE(compare.err.contains(QLatin1String("1 added since the backup"))) << compare.err.toStdString();
    EXPECT_EQ(contents(iCloud()), changed) << "a compare changes nothing";

    const Finished restore = tool({"restore", QFile::decodeName(folder.filename().c_str())});
    EXPECT_EQ(restore.status, 0) << restore.err.toStdString();
    EXPECT_EQ(contents(iCloud()), contents(folder));
    EXPECT_EQ(contents(home.dataHome() / "Trash" / "files"), (Items{"added.txt=added", "edited.txt=after!"}));

    const Finished removal = tool({"delete", "latest"});
    EXPECT_EQ(removal.status, 0) << removal.err.toStdString();
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(records().isEmpty());
}

TEST_F(ToolTest, RefusalsEndWithStatusTwoAndOneLineAndWriteNothing)
{
    writeItems(iCloud(), {"com~apple~Pages/letter.pages=dear", "com~apple~CloudDocs/a=a"});

    expectRefusal(tool({"frobnicate"}), "unknown command");
    expectRefusal(tool({"restore", "2001.01.01-00.00.00"}), "no backup named");
    expectRefusal(tool({"list", "--keep", "3"}), "does not take --keep");

    // The window holds this lock for its whole life.
    const QString lockPath =
        QFile::decodeName((home.configHome() / "Pelmora" / "Pelmora.instance.lock").c_str());
    QDir().mkpath(QFileInfo(lockPath).absolutePath());
    const int lock = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    expectRefusal(tool({"backup"}), "window is open");
    ::close(lock);

    // An application the system knows to be Pages, running while the backup is asked for.
    writeItems(home.dataHome() / "applications",
               {"com.apple.Pages.desktop=[Desktop Entry]\nType=Application\nName=Pages\n"});
    QProcess pages;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(
        QStringLiteral("GIO_LAUNCHED_DESKTOP_FILE"),
        QFile::decodeName((home.dataHome() / "applications" / "com.apple.Pages.desktop").c_str()));
    pages.setProcessEnvironment(environment);
    pages.start(QStringLiteral("sleep"), {QStringLiteral("60")});
    ASSERT_TRUE(pages.waitForStarted());
    expectRefusal(tool({"backup"}), "Pages");
    EXPECT_TRUE(backupFolders().empty());
    EXPECT_TRUE(records().isEmpty());
    EXPECT_EQ(tool({"backup", "--ignore-running-apps"}).status, 0);
    pages.kill();
    pages.waitForFinished();
    EXPECT_EQ(records().size(), 1);
}

TEST_F(ToolTest, ItemsLeftOutGiveStatusOneAndKeepRemovesOnlyOlderBackups)
{
    writeItems(iCloud(), {"com~apple~CloudDocs/a=a"});
    makeSocket(iCloud() / "com~apple~CloudDocs" / "agent.sock");
    // Two older backups, as the window would have left them.
    {
        UserDefaults defaults(UserDefaults::standardFilePath());
        BackupStore store(defaults);
        store.load();
        for (const char* name : {"2020.01.01-10.00.00", "2021.01.01-10.00.00"}) {
            writeItems(backupRoot() / name, {"com~apple~CloudDocs/a=a"});
            store.append(BackupRecord::make(QDateTime::currentDateTime().addYears(-5),
                                            QFile::decodeName((backupRoot() / name).c_str()), 1));
        }
    }

    const Finished backup = tool({"backup", "--keep", "2"});

    EXPECT_EQ(backup.status, 1);
    EXPECT_TRUE(backup.err.contains(QLatin1String("com~apple~CloudDocs/agent.sock: ")))
        << backup.err.toStdString();
    ASSERT_EQ(records().size(), 2);
    EXPECT_TRUE(records().at(0)->backupFolder()->endsWith(QLatin1String("2021.01.01-10.00.00")));
    EXPECT_FALSE(fs::exists(backupRoot() / "2020.01.01-10.00.00"));
    EXPECT_TRUE(fs::exists(backupRoot() / "2021.01.01-10.00.00"));
    EXPECT_TRUE(fs::exists(QFile::encodeName(*records().at(1)->backupFolder()).toStdString()));
}

// systemctl as the tool finds it on PATH: it notes every call, and fails when told to.
QProcessEnvironment withFakeSystemctl(const fs::path& bin, bool fails)
{
    writeItems(bin, {std::string("systemctl=#!/bin/sh\necho \"$*\" >> '") + (bin / "calls").native() + "'\n" +
                     (fails ? "echo 'Failed to connect to bus: No medium found' >&2\nexit 1\n"
                            : "[ \"$2\" = show ] && echo 'Tue 2026-11-24 00:00:00 UTC'\nexit 0\n")});
    ::chmod((bin / "systemctl").c_str(), 0755);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"),
                       QFile::decodeName(bin.c_str()) + ':' + environment.value(QStringLiteral("PATH")));
    return environment;
}

TEST_F(ToolTest, ScheduleWritesASystemdTimerThatRunsABackupAndTakesItAway)
{
    const fs::path units = home.configHome() / "systemd" / "user";
    const QProcessEnvironment systemd = withFakeSystemctl(home.path() / "bin", false);

    EXPECT_EQ(tool({"schedule"}, systemd).out, "scheduled backups: off\n");
    const Finished daily = tool({"schedule", "daily"}, systemd);
    EXPECT_EQ(daily.status, 0) << daily.err.toStdString();
    EXPECT_EQ(daily.out, "scheduled backups: daily; next run: Tue 2026-11-24 00:00:00 UTC\n");
    EXPECT_TRUE(readFile(units / "pelmora-backup.timer").find("\nOnCalendar=daily\nPersistent=true\n") !=
                std::string::npos);
    EXPECT_TRUE(readFile(units / "pelmora-backup.service")
                    .find("ExecStart=\"" + QFile::encodeName(toolPath()).toStdString() +
                          "\" backup --notify\n") != std::string::npos);
    EXPECT_EQ(tool({"schedule"}, systemd).out, daily.out);
    EXPECT_EQ(tool({"schedule", "off"}, systemd).out, "scheduled backups: off\n");
    EXPECT_FALSE(fs::exists(units / "pelmora-backup.timer"));
    EXPECT_FALSE(fs::exists(units / "pelmora-backup.service"));
    EXPECT_EQ(readFile(home.path() / "bin" / "calls"),
              "--user daemon-reload\n--user enable --now pelmora-backup.timer\n"
              "--user show pelmora-backup.timer --property=NextElapseUSecRealtime --value\n"
              "--user show pelmora-backup.timer --property=NextElapseUSecRealtime --value\n"
              "--user disable --now pelmora-backup.timer\n--user daemon-reload\n");

    // Without a user manager nothing half-made stays.
    const Finished refused = tool({"schedule", "hourly"}, withFakeSystemctl(home.path() / "failing", true));
    expectRefusal(refused, "Failed to connect to bus");
    EXPECT_FALSE(fs::exists(units / "pelmora-backup.timer"));
    expectRefusal(tool({"schedule", "monthly"}), "unexpected");
}

// A notification service of the test's own, on a bus of its own.
class NotificationProbe : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const QVariantList arguments = message.arguments();
        if (message.member() == QLatin1String("Notify") && arguments.size() == 8)
            received << arguments.at(3).toString() + " | " + arguments.at(4).toString();
        connection.send(message.createReply(QVariantList{QVariant::fromValue(7u)}));
        return true;
    }
    QStringList received;
};

TEST_F(ToolTest, ATimersBackupThatLeavesItemsOutIsToldAsANotificationOrElseInTheJournal)
{
    if (!PrivateSessionBus::available())
        GTEST_SKIP() << "no dbus-daemon here";
    writeItems(iCloud(), {"com~apple~CloudDocs/a=a"});
    makeSocket(iCloud() / "com~apple~CloudDocs" / "agent.sock");
    const PrivateSessionBus bus;
    const QString busAddress = bus.address();
    ASSERT_FALSE(busAddress.isEmpty());
    QProcessEnvironment onTheBus = QProcessEnvironment::systemEnvironment();
    onTheBus.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);

    // Nobody answers yet: the journal gets it.
    const Finished unheard = tool({"backup", "--notify"}, onTheBus);
    EXPECT_EQ(unheard.status, 1);
    EXPECT_TRUE(unheard.err.contains(QLatin1String("pelmora: no notification service answered; The scheduled "
                                                   "backup left items out: 1 items could not be copied")))
        << unheard.err.toStdString();

    NotificationProbe probe;
    {
        QDBusConnection service =
            QDBusConnection::connectToBus(busAddress, QStringLiteral("pelmora-notifications"));
        ASSERT_TRUE(service.registerService(QStringLiteral("org.freedesktop.Notifications")));
        ASSERT_TRUE(service.registerVirtualObject(QStringLiteral("/org/freedesktop/Notifications"), &probe));
        const Finished heard = tool({"backup", "--notify"}, onTheBus);
        EXPECT_EQ(heard.status, 1);
        EXPECT_FALSE(heard.err.contains(QLatin1String("no notification service"))) << heard.err.toStdString();
        ASSERT_EQ(probe.received.size(), 1);
        EXPECT_TRUE(probe.received[0].startsWith(
            QLatin1String("The scheduled backup left items out | 1 items could not be copied into ")));
        EXPECT_TRUE(tool({"backup"}, onTheBus).status == 1 && probe.received.size() == 1)
            << "only the timer's runs notify";
        service.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("pelmora-notifications"));
}

TEST_F(ToolTest, ControlCCancelsABackupAndLeavesNoFolder)
{
    for (int folder = 0; folder < 40; ++folder)
        for (int file = 0; file < 250; ++file)
            writeFileOfSize(iCloud() / "com~apple~CloudDocs" / std::to_string(folder) / std::to_string(file),
                            8192);
    QProcess process;
    process.start(toolPath(), {QStringLiteral("backup")});
    ASSERT_TRUE(process.waitForStarted());
    ASSERT_TRUE(runEventLoopUntil(
        [&] { return !backupFolders().empty() || process.state() == QProcess::NotRunning; }, 30000));
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitCode(), 2) << "the copy was over before the signal; make the tree larger";
    EXPECT_TRUE(
        QString::fromUtf8(process.readAllStandardError()).contains(QLatin1String("pelmora: cancelled")));
    EXPECT_TRUE(backupFolders().empty());
    EXPECT_TRUE(records().isEmpty());
}

} // namespace

namespace {

std::string printed(const std::function<void(ProgressPrinter&)>& steps, bool terminal)
{
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = ::open_memstream(&text, &size);
    {
        ProgressPrinter printer(stream, terminal);
        steps(printer);
    }
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(ProgressPrinterTest, ABarRedrawnInPlaceOnATerminalAndPlainLinesElsewhereBothEndingOnTheLastFigures)
{
    const auto steps = [](ProgressPrinter& printer) {
        printer.update(1, 4, 1000, 4000);
        printer.update(2, 4, 2000, 4000); // within the interval: held back, and shown by finish()
        printer.finish();
    };
    const std::string bar = printed(steps, true);
    EXPECT_TRUE(bar.starts_with("\r[######..................]  25% 1 of 4 files, 1.0 kB of 4.0 kB, ")) << bar;
    EXPECT_NE(bar.find(" left\x1b[K\r[############............]  50% 2 of 4 files, 2.0 kB of 4.0 kB"),
              std::string::npos)
        << bar;
    EXPECT_TRUE(bar.ends_with("\x1b[K\n")) << bar;
    const std::string plain = printed(steps, false);
    EXPECT_TRUE(plain.starts_with("1 of 4 files, 1.0 kB of 4.0 kB")) << plain;
    EXPECT_NE(plain.find("\n2 of 4 files, 2.0 kB of 4.0 kB"), std::string::npos) << plain;
    EXPECT_EQ(std::count(plain.begin(), plain.end(), '\r'), 0);
}

} // namespace
