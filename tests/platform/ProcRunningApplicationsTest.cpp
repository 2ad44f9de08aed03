#include "platform/ProcRunningApplications.h"
#include "support/EventLoop.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <algorithm>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace TreeBuilder;

constexpr uid_t kUser = 1000;
const char kSessionCgroup[] = "0::/user.slice/user-1000.slice/session-2.scope";
const char kAppSlice[] = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";

struct FakeProcess {
    pid_t pid = 0;
    pid_t parent = 1;
    uid_t uid = kUser;
    char state = 'S';
    bool kernelThread = false;
    std::string comm = "app";
    std::vector<std::string> environment = {"DISPLAY=:0"};
    std::string cgroup = kSessionCgroup;
    std::optional<std::string> flatpakInfo = std::nullopt;
};

std::string flatpakInfoOf(const std::string& id)
{
    return "[Application]\nname=" + id +
           "\nruntime=runtime/org.example.Platform/x86_64/1\n\n[Instance]\n"
           "instance-id=1234\n";
}

QList<pid_t> processIdentifiersOf(const QList<RunningApplication>& applications)
{
    QList<pid_t> pids;
    for (const RunningApplication& application : applications)
        pids << application.processIdentifier;
    return pids;
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
        const std::string uid = std::to_string(process.uid);
        writeFile(folder / "status", "Name:\t" + process.comm + "\nUmask:\t0022\nState:\t" + process.state +
                                         " (sleeping)\nTgid:\t" + std::to_string(process.pid) + "\nPid:\t" +
                                         std::to_string(process.pid) + "\nPPid:\t" +
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

    std::optional<RunningApplication> listed(pid_t pid) const
    {
        for (const RunningApplication& application :
             ProcRunningApplications(sources()).runningApplications()) {
            if (application.processIdentifier == pid)
                return application;
        }
        return std::nullopt;
    }

    TestHome home;
};

TEST_F(ProcRunningApplicationsTest, FlatpakApplicationIsKnownByItsSandbox)
{
    const fs::path icon = home.path() / "icons" / "draw.png";
    makeFolder(icon.parent_path());
    QImage image(16, 16, QImage::Format_ARGB32);
    image.fill(Qt::darkCyan);
    ASSERT_TRUE(image.save(QString::fromStdString(icon.string()), "PNG"));
    addDesktopEntry(applications(), "org.example.Draw", "Name=Drawing\nIcon=" + icon.string());
    addProcess({.pid = 100, .comm = "draw", .flatpakInfo = flatpakInfoOf("org.example.Draw")});

    const std::optional<RunningApplication> draw = listed(100);

    ASSERT_TRUE(draw);
    EXPECT_EQ(draw->bundleIdentifier, "org.example.Draw");
    EXPECT_EQ(draw->localizedName, "Drawing");
    EXPECT_FALSE(draw->icon.isNull());
    EXPECT_EQ(draw->executablePath, "/usr/bin/draw");
}

TEST_F(ProcRunningApplicationsTest, FlatpakScopeNamesTheApplicationEvenWithoutADisplay)
{
    addProcess({.pid = 110,
                .environment = {"LANG=C.UTF-8"},
                .cgroup = std::string(kAppSlice) + "app-flatpak-org.example.Maps-4711.scope"});

    const std::optional<RunningApplication> maps = listed(110);

    ASSERT_TRUE(maps);
    EXPECT_EQ(maps->bundleIdentifier, "org.example.Maps");
}

TEST_F(ProcRunningApplicationsTest, SandboxOfARuntimeAloneNamesNoApplication)
{
    addProcess({.pid = 120, .flatpakInfo = "[Runtime]\nname=org.example.Sdk\n"});

    const std::optional<RunningApplication> process = listed(120);

    ASSERT_TRUE(process);
    EXPECT_EQ(process->bundleIdentifier, std::nullopt);
}

TEST_F(ProcRunningApplicationsTest, DesktopFileLeftByTheLauncherNamesTheApplication)
{
    addDesktopEntry(applications(), "org.example.Viewer", "Name=Viewer");
    addProcess(
        {.pid = 130,
         .environment = {"WAYLAND_DISPLAY=wayland-0",
                         "GIO_LAUNCHED_DESKTOP_FILE=" + desktopFile(applications(), "org.example.Viewer"),
                         "GIO_LAUNCHED_DESKTOP_FILE_PID=130"}});

    const std::optional<RunningApplication> viewer = listed(130);

    ASSERT_TRUE(viewer);
    EXPECT_EQ(viewer->bundleIdentifier, "org.example.Viewer");
    EXPECT_EQ(viewer->localizedName, "Viewer");
}

TEST_F(ProcRunningApplicationsTest, SystemdUnitIdIsUnescapedAndWinsOverInheritedLauncherVariables)
{
    addDesktopEntry(applications(), "org.example.Text-Editor", "Name=Text Editor");
    const std::string inherited =
        "GIO_LAUNCHED_DESKTOP_FILE=" + desktopFile(applications(), "org.example.Terminal");
    addProcess({.pid = 140,
                .environment = {"DISPLAY=:0", inherited},
                .cgroup = std::string(kAppSlice) + "app-gnome-org.example.Text\\x2dEditor-4242.scope"});
    addProcess(
        {.pid = 141, .cgroup = std::string(kAppSlice) + "app-org.example.Mail@autostart.service/worker"});

    const std::optional<RunningApplication> editor = listed(140);
    const std::optional<RunningApplication> mail = listed(141);

    ASSERT_TRUE(editor);
    EXPECT_EQ(editor->bundleIdentifier, "org.example.Text-Editor");
    EXPECT_EQ(editor->localizedName, "Text Editor");
    ASSERT_TRUE(mail);
    EXPECT_EQ(mail->bundleIdentifier, "org.example.Mail");
}

TEST_F(ProcRunningApplicationsTest, BusActivatedServiceIsAnApplicationOnlyWithADesktopEntry)
{
    addDesktopEntry(applications(), "org.example.Files", "Name=Files");
    addProcess({.pid = 150,
                .environment = {"LANG=C.UTF-8"},
                .cgroup = std::string(kAppSlice) + "dbus-:1.2-org.example.Files@0.service"});
    addProcess({.pid = 151, .cgroup = std::string(kAppSlice) + "dbus-:1.2-org.example.Indexer@0.service"});

    const std::optional<RunningApplication> files = listed(150);
    const std::optional<RunningApplication> indexer = listed(151);

    ASSERT_TRUE(files);
    EXPECT_EQ(files->bundleIdentifier, "org.example.Files");
    ASSERT_TRUE(indexer);
    EXPECT_EQ(indexer->bundleIdentifier, std::nullopt);
}

TEST_F(ProcRunningApplicationsTest, SnapNamedOnlyBySnapdsPrefixedDesktopFileHasNoIdentifier)
{
    addDesktopEntry(snapApplications(), "notes_notes", "Name=Notes");
    // Started from a terminal that a launcher had started: its variable is the terminal's, not the snap's.
    const std::string inherited =
        "GIO_LAUNCHED_DESKTOP_FILE=" + desktopFile(applications(), "org.example.Terminal");
    addProcess({.pid = 160,
                .environment = {"DISPLAY=:0", inherited},
                .cgroup = std::string(kAppSlice) + "snap.notes.notes-1a2b3c4d.scope"});

    const std::optional<RunningApplication> notes = listed(160);

    ASSERT_TRUE(notes);
    EXPECT_EQ(notes->bundleIdentifier, std::nullopt);
    EXPECT_EQ(notes->localizedName, "Notes");
}

TEST_F(ProcRunningApplicationsTest, SnapDesktopIdOfItsOwnChoosingIsItsIdentifier)
{
    addDesktopEntry(snapApplications(), "paint_org.example.Paint", "Name=Paint");
    addProcess({.pid = 170,
                .environment = {"DISPLAY=:0", "SNAP_NAME=paint",
                                "BAMF_DESKTOP_FILE_HINT=" +
                                    desktopFile(snapApplications(), "paint_org.example.Paint")}});

    const std::optional<RunningApplication> paint = listed(170);

    ASSERT_TRUE(paint);
    EXPECT_EQ(paint->bundleIdentifier, "org.example.Paint");
    EXPECT_EQ(paint->localizedName, "Paint");
}

TEST_F(ProcRunningApplicationsTest, DesktopIdThatIsNotReverseDnsGivesNoIdentifier)
{
    addDesktopEntry(applications(), "webbrowser", "Name=Web Browser");
    addProcess({.pid = 180,
                .environment = {"DISPLAY=:0",
                                "GIO_LAUNCHED_DESKTOP_FILE=" + desktopFile(applications(), "webbrowser")}});

    const std::optional<RunningApplication> browser = listed(180);

    ASSERT_TRUE(browser);
    EXPECT_EQ(browser->bundleIdentifier, std::nullopt);
    EXPECT_EQ(browser->localizedName, "Web Browser");
}

TEST_F(ProcRunningApplicationsTest, ProcessesOfOtherUsersAreNotListed)
{
    addProcess({.pid = 190, .uid = kUser + 1, .flatpakInfo = flatpakInfoOf("org.example.Draw")});

    EXPECT_FALSE(listed(190));
    EXPECT_FALSE(ProcRunningApplications(sources()).runningApplicationWithProcessIdentifier(190));
}

TEST_F(ProcRunningApplicationsTest, ShellIsListedOnlyWithADisplayAndNeverIdentified)
{
    addProcess({.pid = 200, .comm = "bash", .environment = {"TERM=xterm-256color", "SHELL=/bin/bash"}});
    addProcess({.pid = 201, .comm = "bash", .environment = {"TERM=xterm-256color", "DISPLAY=:0"}});

    const std::optional<RunningApplication> withDisplay = listed(201);

    EXPECT_FALSE(listed(200));
    ASSERT_TRUE(withDisplay);
    EXPECT_EQ(withDisplay->bundleIdentifier, std::nullopt);
    EXPECT_EQ(withDisplay->localizedName, "bash");
    EXPECT_TRUE(withDisplay->icon.isNull());
}

TEST_F(ProcRunningApplicationsTest, VanishedZombieAndKernelProcessesArePassedOver)
{
    makeSymlink("/nonexistent/proc/300", proc() / "300"); // listed by the folder, gone when opened
    addProcess({.pid = 301});
    fs::remove(proc() / "301" / "environ"); // exited between two reads
    addProcess({.pid = 302, .state = 'Z'});
    addProcess({.pid = 303, .parent = 2, .kernelThread = true, .environment = {}, .cgroup = "0::/"});
    addProcess({.pid = 310});
    writeFile(proc() / "self", "not a process");

    const QList<RunningApplication> applications = ProcRunningApplications(sources()).runningApplications();

    EXPECT_EQ(processIdentifiersOf(applications), QList<pid_t>{310});
}

TEST_F(ProcRunningApplicationsTest, ProcessWhoseEnvironmentCannotBeReadIsPassedOver)
{
    const uid_t childUid = ::geteuid() == 0 ? 65534 : ::getuid();
    addProcess({.pid = 400, .uid = childUid});
    addProcess({.pid = 401, .uid = childUid});
    ::chmod((proc() / "400" / "environ").c_str(), 0);
    for (fs::path p = home.path(); p != home.path().parent_path(); p = p.parent_path())
        ::chmod(p.c_str(), 0755);

    ProcRunningApplications::Sources fromChild = sources();
    fromChild.uid = childUid;
    const std::optional<std::string> answer = runUnprivileged([&] {
        std::string pids;
        for (const RunningApplication& application : ProcRunningApplications(fromChild).runningApplications())
            pids += std::to_string(application.processIdentifier) + ' ';
        return pids;
    });
    if (!answer)
        GTEST_SKIP() << "cannot run a child as an unprivileged user here";
    EXPECT_EQ(*answer, "401 ");
}

TEST_F(ProcRunningApplicationsTest, NameFollowsTheUsersLanguagesThenTheUntranslatedOne)
{
    addDesktopEntry(applications(), "org.example.Draw",
                    "Name=Drawing\nName[de]=Zeichnen\nName[de_CH]=Zeichne\nName[fr]=");
    addProcess({.pid = 500, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    const auto nameFor = [&](const QStringList& languages) {
        const std::optional<RunningApplication> draw =
            ProcRunningApplications(sources(languages)).runningApplicationWithProcessIdentifier(500);
        return draw ? draw->localizedName : QString();
    };

    EXPECT_EQ(nameFor({"de-Latn-DE", "de-DE", "de"}), "Zeichnen");
    EXPECT_EQ(nameFor({"de-Latn-CH", "de-CH"}), "Zeichne");
    EXPECT_EQ(nameFor({"en-Latn-US", "en-US", "en"}), "Drawing");
    EXPECT_EQ(nameFor({"fr-Latn-FR", "fr-FR", "fr", "de"}), "Zeichnen"); // an empty translation is none
}

TEST_F(ProcRunningApplicationsTest, WithoutADesktopEntryTheProcessNameStandsIn)
{
    addProcess({.pid = 510, .comm = "mapper", .flatpakInfo = flatpakInfoOf("org.example.Mapper")});

    const std::optional<RunningApplication> mapper = listed(510);

    ASSERT_TRUE(mapper);
    EXPECT_EQ(mapper->bundleIdentifier, "org.example.Mapper");
    EXPECT_EQ(mapper->localizedName, "mapper");
    EXPECT_TRUE(mapper->icon.isNull());
}

TEST_F(ProcRunningApplicationsTest, EarlierDataDirectoryWins)
{
    addDesktopEntry(applications(), "org.example.Draw", "Name=Drawing");
    addDesktopEntry(snapApplications(), "org.example.Draw", "Name=Older Drawing");
    addProcess({.pid = 520, .flatpakInfo = flatpakInfoOf("org.example.Draw")});

    const std::optional<RunningApplication> draw = listed(520);

    ASSERT_TRUE(draw);
    EXPECT_EQ(draw->localizedName, "Drawing");
}

TEST_F(ProcRunningApplicationsTest, HelpersAreFoldedIntoTheirApplicationButFoundByProcessIdentifier)
{
    addProcess({.pid = 600, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    addProcess({.pid = 601, .parent = 600, .comm = "sh", .environment = {"DISPLAY=:0"}});
    addProcess({.pid = 602, .parent = 601, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    addProcess({.pid = 610, .flatpakInfo = flatpakInfoOf("org.example.Draw")}); // a second instance
    addProcess({.pid = 620,
                .parent = 600,
                .environment = {"DISPLAY=:0", "GIO_LAUNCHED_DESKTOP_FILE=" +
                                                  desktopFile(applications(), "org.example.Viewer")}});
    ProcRunningApplications running(sources());

    const QList<RunningApplication> applications = running.runningApplications();
    const std::optional<RunningApplication> helper = running.runningApplicationWithProcessIdentifier(602);

    EXPECT_EQ(processIdentifiersOf(applications), (QList<pid_t>{600, 601, 610, 620}));
    ASSERT_TRUE(helper);
    EXPECT_EQ(helper->bundleIdentifier, "org.example.Draw");
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(699));
    EXPECT_FALSE(running.runningApplicationWithProcessIdentifier(0));
}

TEST_F(ProcRunningApplicationsTest, DesktopEntryIsReadOnceForAllLaterListings)
{
    addDesktopEntry(applications(), "org.example.Draw", "Name=Drawing");
    addProcess({.pid = 700, .flatpakInfo = flatpakInfoOf("org.example.Draw")});
    ProcRunningApplications running(sources());
    ASSERT_EQ(running.runningApplicationWithProcessIdentifier(700)->localizedName, "Drawing");

    fs::remove(desktopFile(applications(), "org.example.Draw"));

    EXPECT_EQ(running.runningApplicationWithProcessIdentifier(700)->localizedName, "Drawing");
}

TEST_F(ProcRunningApplicationsTest, ProcessWithoutAnIdentifierCannotBeActivated)
{
    addProcess({.pid = 800, .comm = "bash"});
    ProcRunningApplications running(sources());

    EXPECT_FALSE(running.activate(800));
    EXPECT_FALSE(running.activate(899));
}

// A session bus of the test's own, so that nothing on the developer's desktop is asked to come forward.
class PrivateBus {
public:
    PrivateBus()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
        if (m_daemon.waitForStarted(5000) && m_daemon.waitForReadyRead(5000))
            m_address = QString::fromUtf8(m_daemon.readLine().trimmed());
    }
    ~PrivateBus()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished(5000);
    }
    QDBusConnection connect(const QString& name) const
    {
        return QDBusConnection::connectToBus(m_address, name);
    }
    bool isRunning() const { return !m_address.isEmpty(); }

private:
    QProcess m_daemon;
    QString m_address;
};

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

class ActivationTest : public ProcRunningApplicationsTest {
protected:
    void TearDown() override
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("pelmora-test-application"));
        QDBusConnection::disconnectFromBus(QStringLiteral("pelmora-test-caller"));
    }
};

TEST_F(ActivationTest, ApplicationOnTheBusIsAskedToActivate)
{
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
        GTEST_SKIP() << "no dbus-daemon here";
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    ActivationProbe probe;
    QDBusConnection application = bus.connect(QStringLiteral("pelmora-test-application"));
    ASSERT_TRUE(application.registerService(QStringLiteral("org.example.Pelmora-Probe")));
    ASSERT_TRUE(application.registerVirtualObject(QStringLiteral("/org/example/Pelmora_Probe"), &probe));
    ASSERT_TRUE(bus.connect(QStringLiteral("pelmora-test-caller")).isConnected());
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

    const QList<RunningApplication> applications = running.runningApplications();
    const std::optional<RunningApplication> self =
        running.runningApplicationWithProcessIdentifier(::getpid());

    for (const RunningApplication& application : applications)
        EXPECT_GT(application.processIdentifier, 0);
    EXPECT_FALSE(self && self->bundleIdentifier) << self->bundleIdentifier->toStdString();
}

} // namespace
