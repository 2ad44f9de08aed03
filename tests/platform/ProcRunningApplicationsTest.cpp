#include "platform/ProcRunningApplications.h"

#include "support/EventLoop.h"
#include "support/PrivateSessionBus.h"
#include "support/QtPrinters.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <gtest/gtest.h>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QScopeGuard>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace TreeBuilder;

constexpr uid_t kUser = 1000;
const std::string kAppSlice = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";

struct FakeProcess {
    pid_t pid = 0;
    pid_t parent = 1;
    uid_t uid = kUser;
    char state = 'S';
    bool kernelThread = false;
    std::string comm = "app";
    std::vector<std::string> environment = {"DISPLAY=:0"};
    std::string cgroup = "0::/user.slice/user-1000.slice/session-2.scope";
    std::optional<std::string> flatpakInfo = std::nullopt;
};

std::string flatpakInfoOf(const std::string& id)
{
    return "[Application]\nname=" + id +
           "\nruntime=runtime/org.example.Platform/x86_64/1\n\n[Instance]\ninstance-id=1234\n";
}

// A line per listed application: its process identifier, bundle identifier ("-" for none), name,
// executable, and whether it has an icon.
std::string listing(const ProcRunningApplications& running)
{
    std::string lines;
    for (const RunningApplication& application : running.runningApplications())
        lines += std::to_string(application.processIdentifier) + ' ' +
                 application.bundleIdentifier.value_or("-").toStdString() + ' ' +
                 application.localizedName.toStdString() + ' ' + application.executablePath.toStdString() +
                 (application.icon.isNull() ? "" : " (icon)") + '\n';
    return lines;
}

class ProcRunningApplicationsTest : public ::testing::Test {
protected:
    fs::path proc() const { return home.path() / "proc"; }
    fs::path applications() const { return home.path() / "share" / "applications"; }
    fs::path snapApplications() const { return home.path() / "snapd" / "desktop" / "applications"; }
    std::string desktopFile(const fs::path& folder, const std::string& id) const
    {
        return (folder / (id + ".desktop")).string();
    }

    void addProcess(const FakeProcess& process) const
    {
        const fs::path folder = proc() / std::to_string(process.pid);
        const std::string pid = std::to_string(process.pid), uid = std::to_string(process.uid);
        writeFile(folder / "status", "Name:\t" + process.comm + "\nUmask:\t0022\nState:\t" + process.state +
                                         " (sleeping)\nTgid:\t" + pid + "\nPid:\t" + pid + "\nPPid:\t" +
                                         std::to_string(process.parent) + "\nUid:\t" + uid + "\t" + uid +
                                         "\t" + uid + "\t" + uid + "\nKthread:\t" +
                                         (process.kernelThread ? "1" : "0") + "\n");
        std::string environ;
        for (const std::string& variable : process.environment)
            environ += variable + '\0';
        writeFile(folder / "environ", environ);
        writeFile(folder / "cgroup", process.cgroup + "\n");
        writeFile(folder / "comm", process.comm + "\n");
        makeSymlink("/usr/bin/" + process.comm, folder / "exe");
        makeFolder(folder / "root");
        if (process.flatpakInfo)
            writeFile(folder / "root" / ".flatpak-info", *process.flatpakInfo);
    }

    void addDesktopEntry(const fs::path& folder, const std::string& id, const std::string& keys) const
    {
        writeFile(desktopFile(folder, id),
                  "# written by the test\n[Desktop Entry]\nType=Application\nExec=" + id + "\n" + keys +
                      "\n[Desktop Action New]\nName=Not this one\n");
    }

    ProcRunningApplications::Sources sources(const QStringList& languages = {"en-Latn-US", "en-US",
                                                                             "en"}) const
    {
        ProcRunningApplications::Sources sources;
        sources.procRoot = QString::fromStdString(proc().string());
        sources.dataDirectories = {QString::fromStdString((home.path() / "share").string()),
                                   QString::fromStdString((home.path() / "snapd" / "desktop").string())};
        sources.uid = kUser;
        sources.uiLanguages = languages;
        return sources;
    }

    TestHome home;
};

TEST_F(ProcRunningApplicationsTest, EachProcessIsIdentifiedOnlyByWhatTheSystemRecordsOfIt)
{
    const fs::path icon = home.path() / "draw.png";
    QImage image(16, 16, QImage::Format_ARGB32);
    image.fill(Qt::darkCyan);
    ASSERT_TRUE(image.save(QString::fromStdString(icon.string()), "PNG"));
    addDesktopEntry(applications(), "org.example.Draw",
                    "Name=Drawing\nName[de]=Zeichnen\nName[de_CH]=Zeichne\nName[fr]=\nIcon=" + icon.string());
    addDesktopEntry(snapApplications(), "org.example.Draw", "Name=Older Drawing"); // the earlier folder wins
    addDesktopEntry(applications(), "org.example.Viewer", "Name=Viewer");
    addDesktopEntry(applications(), "org.example.Text-Editor", "Name=Text Editor");
    addDesktopEntry(applications(), "org.example.Files", "Name=Files");
    addDesktopEntry(applications(), "webbrowser", "Name=Web Browser");
    addDesktopEntry(snapApplications(), "notes_notes", "Name=Notes");
    addDesktopEntry(snapApplications(), "paint_org.example.Paint", "Name=Paint");
    const auto unit = [](const std::string& name) { return kAppSlice + name; };
    const auto launchedFrom = [&](const std::string& id) {
        return "GIO_LAUNCHED_DESKTOP_FILE=" + desktopFile(applications(), id);
    };
    // Started from a terminal that a launcher had started: the variable is the terminal's, not the process's.
    const std::string inherited = launchedFrom("org.example.Terminal");
    // Flatpak: the sandbox's own record, or the scope its launcher made; a runtime's record names nothing.
    addProcess({.pid = 100, .comm = "draw", .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    addProcess({.pid = 110,
                .environment = {"LANG=C.UTF-8"},
                .cgroup = unit("app-flatpak-org.example.Maps-4711.scope")});
    addProcess({.pid = 120, .flatpakInfo = "[Runtime]\nname=org.example.Sdk\n"});
    // The desktop file its launcher left; the unit's escaped id over an inherited variable; an autostart.
    addProcess({.pid = 130,
                .environment = {"WAYLAND_DISPLAY=wayland-0", launchedFrom("org.example.Viewer"),
                                "GIO_LAUNCHED_DESKTOP_FILE_PID=130"}});
    addProcess({.pid = 140,
                .environment = {"DISPLAY=:0", inherited},
                .cgroup = unit("app-gnome-org.example.Text\\x2dEditor-4242.scope")});
    addProcess({.pid = 141, .cgroup = unit("app-org.example.Mail@autostart.service/worker")});
    // Activated by the bus, with a desktop entry and without one.
    addProcess({.pid = 150,
                .environment = {"LANG=C.UTF-8"},
                .cgroup = unit("dbus-:1.2-org.example.Files@0.service")});
    addProcess({.pid = 151, .cgroup = unit("dbus-:1.2-org.example.Indexer@0.service")});
    // Snaps: known only by snapd's prefixed desktop file, or by a desktop id of the snap's own choosing.
    addProcess({.pid = 160,
                .environment = {"DISPLAY=:0", inherited},
                .cgroup = unit("snap.notes.notes-1a2b3c4d.scope")});
    addProcess({.pid = 170,
                .environment = {"DISPLAY=:0", "SNAP_NAME=paint",
                                "BAMF_DESKTOP_FILE_HINT=" +
                                    desktopFile(snapApplications(), "paint_org.example.Paint")}});
    // A desktop id that is not reverse-DNS names the application without identifying it; an application
    // without a desktop entry goes by its command.
    addProcess({.pid = 180, .environment = {"DISPLAY=:0", launchedFrom("webbrowser")}});
    addProcess({.pid = 510, .comm = "mapper", .flatpakInfo = flatpakInfoOf("org.example.Mapper")});
    // A shell is listed only with a display; another user's processes never are.
    addProcess({.pid = 201, .comm = "bash", .environment = {"TERM=xterm", "DISPLAY=:0"}});
    addProcess({.pid = 200, .comm = "bash", .environment = {"TERM=xterm", "SHELL=/bin/bash"}});
    addProcess({.pid = 190, .uid = kUser + 1, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    ProcRunningApplications running(sources());

    EXPECT_EQ(listing(running), "100 org.example.Draw Drawing /usr/bin/draw (icon)\n"
                                "110 org.example.Maps app /usr/bin/app\n"
                                "120 - app /usr/bin/app\n"
                                "130 org.example.Viewer Viewer /usr/bin/app\n"
                                "140 org.example.Text-Editor Text Editor /usr/bin/app\n"
                                "141 org.example.Mail app /usr/bin/app\n"
                                "150 org.example.Files Files /usr/bin/app\n"
                                "151 - app /usr/bin/app\n"
                                "160 - Notes /usr/bin/app\n"
                                "170 org.example.Paint Paint /usr/bin/app\n"
                                "180 - Web Browser /usr/bin/app\n"
                                "201 - bash /usr/bin/bash\n"
                                "510 org.example.Mapper mapper /usr/bin/mapper\n");
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(190));
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(200));

    // The name follows the user's languages, then the untranslated one; an empty translation is none.
    const auto nameFor = [&](const QStringList& languages) {
        const std::optional<RunningApplication> draw =
            ProcRunningApplications(sources(languages)).runningApplicationWithProcessIdentifier(100);
        return draw ? draw->localizedName : QString();
    };
    EXPECT_EQ(nameFor({"de-Latn-DE", "de-DE", "de"}), "Zeichnen");
    EXPECT_EQ(nameFor({"de-Latn-CH", "de-CH"}), "Zeichne");
    EXPECT_EQ(nameFor({"fr-Latn-FR", "fr-FR", "fr", "de"}), "Zeichnen");

    // A desktop entry once read is kept for all later listings.
    ASSERT_EQ(running.runningApplicationWithProcessIdentifier(100)->localizedName, "Drawing");
    fs::remove(desktopFile(applications(), "org.example.Draw"));
    EXPECT_EQ(running.runningApplicationWithProcessIdentifier(100)->localizedName, "Drawing");
}

TEST_F(ProcRunningApplicationsTest, OneEntryPerInstanceWithHelpersFoundByProcessIdentifierAndNoStrays)
{
    makeSymlink("/nonexistent/proc/300", proc() / "300"); // listed by the folder, gone when opened
    addProcess({.pid = 301});
    fs::remove(proc() / "301" / "environ"); // exited between two reads
    addProcess({.pid = 302, .state = 'Z'});
    addProcess({.pid = 303, .parent = 2, .kernelThread = true, .environment = {}, .cgroup = "0::/"});
    writeFile(proc() / "self", "not a process");
    addProcess({.pid = 600, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    addProcess({.pid = 601, .parent = 600, .comm = "sh", .environment = {"DISPLAY=:0"}});
    addProcess({.pid = 602, .parent = 601, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    addProcess({.pid = 610, .flatpakInfo = flatpakInfoOf("org.example.Draw")}); // a second instance
    addProcess({.pid = 620,
                .parent = 600,
                .environment = {"DISPLAY=:0", "GIO_LAUNCHED_DESKTOP_FILE=" +
                                                  desktopFile(applications(), "org.example.Viewer")}});
    ProcRunningApplications running(sources());

    EXPECT_EQ(listing(running), "600 org.example.Draw app /usr/bin/app\n"
                                "601 - sh /usr/bin/sh\n"
                                "610 org.example.Draw app /usr/bin/app\n"
                                "620 org.example.Viewer app /usr/bin/app\n");
    const std::optional<RunningApplication> helper = running.runningApplicationWithProcessIdentifier(602);
    ASSERT_TRUE(helper);
    EXPECT_EQ(helper->bundleIdentifier, "org.example.Draw");
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(699));
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(0));
    // Without an identifier there is nobody to ask on the bus.
    EXPECT_FALSE(running.activate(601));
    EXPECT_FALSE(running.activate(699));
}

class ActivationProbe : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        received << message.interface() + '.' + message.member() + ' ' + message.path();
        connection.send(message.createReply());
        return true;
    }
    QStringList received;
};

TEST_F(ProcRunningApplicationsTest, ApplicationOnTheBusIsAskedToActivate)
{
    if (!PrivateSessionBus::available())
        GTEST_SKIP() << "no dbus-daemon here";
    const PrivateSessionBus bus;
    const auto disconnect = qScopeGuard([] {
        QDBusConnection::disconnectFromBus(QStringLiteral("pelmora-test-application"));
        QDBusConnection::disconnectFromBus(QStringLiteral("pelmora-test-caller"));
    });
    const QString address = bus.address();
    ASSERT_FALSE(address.isEmpty());
    ActivationProbe probe;
    QDBusConnection application =
        QDBusConnection::connectToBus(address, QStringLiteral("pelmora-test-application"));
    ASSERT_TRUE(application.registerService(QStringLiteral("org.example.Pelmora-Probe")));
    ASSERT_TRUE(application.registerVirtualObject(QStringLiteral("/org/example/Pelmora_Probe"), &probe));
    ASSERT_TRUE(QDBusConnection::connectToBus(address, QStringLiteral("pelmora-test-caller")).isConnected());
    addProcess({.pid = 900, .flatpakInfo = flatpakInfoOf("org.example.Pelmora-Probe")});
    addProcess({.pid = 901, .flatpakInfo = flatpakInfoOf("org.example.NotOnTheBus")});
    ProcRunningApplications::Sources onPrivateBus = sources();
    onPrivateBus.busConnectionName = QStringLiteral("pelmora-test-caller");
    ProcRunningApplications running(onPrivateBus);

    EXPECT_FALSE(running.activate(901));
    ASSERT_TRUE(running.activate(900));
    ASSERT_TRUE(runEventLoopUntil([&] { return !probe.received.isEmpty(); }));
    EXPECT_EQ(probe.received, QStringList{"org.freedesktop.Application.Activate /org/example/Pelmora_Probe"});
    application.unregisterObject(QStringLiteral("/org/example/Pelmora_Probe"));
}

TEST(ProcRunningApplicationsOnThisSystemTest, ReadsTheRealProcessTableWithoutIdentifyingThisTest)
{
    QFile cgroup(QStringLiteral("/proc/self/cgroup"));
    const bool inApplicationUnit = cgroup.open(QIODevice::ReadOnly) && cgroup.readAll().contains("/app-");
    if (inApplicationUnit || QFileInfo::exists(QStringLiteral("/.flatpak-info")) ||
        qEnvironmentVariableIsSet("GIO_LAUNCHED_DESKTOP_FILE") || qEnvironmentVariableIsSet("SNAP_NAME"))
        GTEST_SKIP() << "this test runs inside an application's own launch";
    ProcRunningApplications running;

    for (const RunningApplication& application : running.runningApplications())
        EXPECT_GT(application.processIdentifier, 0);
    const std::optional<RunningApplication> self =
        running.runningApplicationWithProcessIdentifier(::getpid());
    EXPECT_FALSE(self && self->bundleIdentifier) << self->bundleIdentifier->toStdString();
}

} // namespace
