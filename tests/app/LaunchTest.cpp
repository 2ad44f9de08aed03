#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "platform/SingleInstance.h"
#include "support/MainWindowFixture.h"

#include <fcntl.h>
#include <QAction>
#include <QMenuBar>
#include <QProcess>
#include <sys/file.h>
#include <unistd.h>

namespace {

struct Finished {
    int exitCode = -1;
    QString output;
    QString errors;
};

// The real program, started and waited for; a program that had not ended within the bound is killed.
Finished runProgram(const QStringList& arguments, const QProcessEnvironment& environment)
{
    QProcess program;
    program.setProcessEnvironment(environment);
    program.start(PELMORA_BINARY_DIR "/Pelmora", arguments);
    const bool ended = program.waitForFinished(20000);
    EXPECT_TRUE(ended);
    EXPECT_EQ(program.exitStatus(), QProcess::NormalExit) << "no crash, no abort";
    return {ended ? program.exitCode() : -1, QString::fromLocal8Bit(program.readAllStandardOutput()),
            QString::fromLocal8Bit(program.readAllStandardError())};
}

// The user's environment with no display, or with one where nothing answers.
QProcessEnvironment withoutADisplay(const char* unansweredDisplay = "")
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(name);
    if (*unansweredDisplay)
        environment.insert("DISPLAY", unansweredDisplay);
    return environment;
}

// A complaint fit for a terminal or a journal: one line that says what is wrong.
void expectOneLineSaying(const QString& errors, const QStringList& words)
{
    EXPECT_EQ(errors.trimmed().count('\n'), 0) << errors.toStdString();
    for (const QString& word : words)
        EXPECT_TRUE(errors.contains(word)) << errors.toStdString();
}

TEST(GraphicalSessionTest, WithoutADisplayTheProgramSaysSoInOneLineAndFails)
{
    for (const char* display : {"", ":9999"}) {
        const Finished finished = runProgram({}, withoutADisplay(display));
        EXPECT_NE(finished.exitCode, 0) << display;
        expectOneLineSaying(finished.errors, {"needs a graphical session"});
    }
}

TEST(CommandLineTest, HelpAnswersWithoutADisplay)
{
    for (const char* help : {"--help", "-h"}) {
        const Finished finished = runProgram({help}, withoutADisplay());
        EXPECT_EQ(finished.exitCode, 0) << help;
        EXPECT_TRUE(finished.output.startsWith("Usage: Pelmora [options]\n") &&
                    finished.output.contains("--version"))
            << finished.output.toStdString();
        EXPECT_TRUE(finished.errors.isEmpty()) << finished.errors.toStdString();
    }
}

TEST(CommandLineTest, AnUnknownOptionOrAStrayArgumentIsNamedInOneLineWithStatusTwo)
{
    const std::pair<QStringList, QString> cases[] = {
        {{"--backup-now"}, "'--backup-now'"}, {{"-x", "--version"}, "'-x'"}, {{"--help=all"}, "'--help'"},
        {{"Documents"}, "'Documents'"},       {{"-style"}, "'-style'"},
    };
    for (const auto& [arguments, named] : cases) {
        SCOPED_TRACE(arguments.join(' ').toStdString());
        const Finished finished = runProgram(arguments, withoutADisplay());
        EXPECT_EQ(finished.exitCode, CommandLine::kUsageExitCode);
        expectOneLineSaying(finished.errors, {named, "Pelmora --help"});
        EXPECT_TRUE(finished.output.isEmpty());
    }
}

// The session manager restarts the program with -session; Qt's options are QApplication's to take.
TEST(CommandLineTest, QtsOwnOptionsAreLeftToQt)
{
    const QStringList arguments = {"Pelmora",   "-session",  "1234abcd", "-style=Fusion",
                                   "--reverse", "-platform", "offscreen"};
    EXPECT_EQ(CommandLine(arguments).action(), CommandLine::Action::Run);
    EXPECT_EQ(CommandLine({"Pelmora"}).action(), CommandLine::Action::Run);
    EXPECT_EQ(CommandLine({"Pelmora", "--help", "-style", "Fusion"}).action(), CommandLine::Action::ShowHelp);
}

// A home of its own with an iCloud folder, run offscreen; the single-instance places come from
// the variables, as in a user's session.
class ProgramLaunchTest : public ::testing::Test {
protected:
    ProgramLaunchTest()
    {
        TreeBuilder::makeFolder(home.path() / "Library" / "Mobile Documents" / "com~apple~CloudDocs");
        for (const char* name : {"run", "tmp-a", "tmp-b"})
            TreeBuilder::makeFolder(home.path() / name);
        std::filesystem::permissions(home.path() / "run", std::filesystem::perms::owner_all);
    }
    QProcessEnvironment environment(const char* temporaryFolder, bool withRuntimeFolder) const
    {
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        const QString root = QString::fromStdString(home.path().string());
        variables.insert("QT_QPA_PLATFORM", "offscreen");
        variables.insert("TMPDIR", root + "/" + temporaryFolder);
        variables.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + root + "/no-bus");
        variables.remove("XDG_RUNTIME_DIR");
        if (withRuntimeFolder)
            variables.insert("XDG_RUNTIME_DIR", root + "/run");
        return variables;
    }
    std::filesystem::path lockFile() const { return home.configHome() / "Pelmora" / "Pelmora.instance.lock"; }

    TestHome home;
};

TEST_F(ProgramLaunchTest, ASecondProgramOnTheSamePreferencesHandsOverAndEnds)
{
    QProcess first;
    first.setProcessEnvironment(environment("tmp-a", true));
    first.start(PELMORA_BINARY_DIR "/Pelmora", {});
    // The lock file names the socket once the program answers.
    ASSERT_TRUE(runEventLoopUntil(
        [&] { return std::filesystem::exists(lockFile()) && std::filesystem::file_size(lockFile()) > 0; },
        20000));

    const Finished second = runProgram({}, environment("tmp-b", false));
    EXPECT_EQ(second.exitCode, 0) << second.errors.toStdString();
    EXPECT_EQ(first.state(), QProcess::Running);

    first.terminate();
    ASSERT_TRUE(first.waitForFinished(20000));
    EXPECT_EQ(first.exitStatus(), QProcess::NormalExit);
}

TEST_F(ProgramLaunchTest, AHolderOfTheLockThatDoesNotAnswerStopsASecondProgram)
{
    TreeBuilder::makeFolder(lockFile().parent_path());
    const int holder = ::open(lockFile().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);

    const Finished second = runProgram({}, environment("tmp-a", true));
    ::close(holder);
    EXPECT_EQ(second.exitCode, SingleInstance::kAlreadyRunningExitCode);
    expectOneLineSaying(second.errors, {"already running", QString::fromStdString(lockFile().string())});
    EXPECT_FALSE(std::filesystem::exists(home.configHome() / "Pelmora" / "Pelmora.json"));
}

// A German user with something in iCloud Drive.
class LaunchTest : public TestWorld {
protected:
    LaunchTest()
        : TestWorld("de")
    {
        TreeBuilder::writeFileOfSize(iCloud() / "com~apple~CloudDocs" / "f", 321);
    }

    // A home of more than three components reads as a sandbox container.
    void pretendSandboxed() { qputenv("HOME", (home.path() / "Containers" / "Data").c_str()); }
    QString menuTitle(int index) const
    {
        const QList<QAction*> items = delegate.mainWindowController()->menuBar()->actions();
        return index < items.size() ? items[index]->text() : QString();
    }
    static QString menuText(const char* key) { return Localizer::localizedStringForKey(key, "MainMenu"); }

    AppDelegate delegate{
        {defaults, chooser, passwords, applications, alerts, fileManager, scriptedStreamFactory(streams)}};
};

TEST_F(LaunchTest, OutsideASandboxTheWindowShowsTheFolderIsWatchedOnceMeasuredAndTheMenuTranslated)
{
    delegate.applicationDidFinishLaunching();

    MainWindowController* controller = delegate.mainWindowController();
    ASSERT_NE(controller, nullptr);
    EXPECT_TRUE(controller->isVisible());
    EXPECT_EQ(controller->windowTitle(), "Pelmora");
    EXPECT_FALSE(delegate.sandboxed());
    EXPECT_TRUE(chooser.titles.isEmpty());
    EXPECT_TRUE(iCloudPrefs::isFirstLaunch(defaults)) << "nothing asked, nothing stored";
    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(streams.calls.count("create"), 1) << "the second start is refused by the watcher";
    EXPECT_TRUE(delegate.isObservingWindowClose());
    EXPECT_EQ(menuTitle(0), menuText("MainMenu_Pelmora")) << "the application menu goes by the bundle name";
    EXPECT_TRUE(menuTitle(0).contains("Pelmora"));
    EXPECT_EQ(menuTitle(1), menuText("MainMenu_File"));
    EXPECT_NE(menuTitle(1), "File");
    ASSERT_TRUE(runEventLoopUntil([&] { return !controller->isCalculatingiCloudSizeInProgress(); }));
    EXPECT_NE(controller->labeliCloudSize()->text(), "?");
}

TEST_F(LaunchTest, ADeepHomeThatIsTheUsersOwnIsNoSandboxAndIsNotAskedFor)
{
    const std::filesystem::path own = home.path() / "example.com" / "alice";
    TreeBuilder::makeFolder(own);
    qputenv("HOME", own.c_str());
    passwords.home = own.string();
    delegate.applicationDidFinishLaunching();

    EXPECT_FALSE(delegate.sandboxed());
    EXPECT_TRUE(chooser.titles.isEmpty());
    EXPECT_EQ(delegate.homeDirectory(), QString::fromStdString(own.string()));
}

TEST_F(LaunchTest, SandboxedFirstLaunchWithTheWrongFolderEndsEarly)
{
    pretendSandboxed();
    chooser.answer = QStringLiteral("/tmp");
    delegate.applicationDidFinishLaunching();

    EXPECT_TRUE(delegate.sandboxed());
    EXPECT_TRUE(delegate.mainWindowController()->isVisible());
    EXPECT_FALSE(delegate.homeDirectory().has_value());
    EXPECT_FALSE(delegate.isObservingWindowClose());
    EXPECT_EQ(menuTitle(1), "File") << "the menu stays untranslated in this launch";
    EXPECT_TRUE(streams.calls.isEmpty());
    EXPECT_FALSE(iCloudPrefs::isFirstLaunch(defaults)) << "not asked again";
    EXPECT_FALSE(defaults.dataForKey(iCloudPrefs::kHomeDirBookmarkDataKey).has_value());
}

TEST_F(LaunchTest, SandboxedFirstLaunchCancelledStillSubscribesAndTranslates)
{
    pretendSandboxed();
    delegate.applicationDidFinishLaunching();

    EXPECT_EQ(chooser.titles.size(), 1);
    EXPECT_FALSE(delegate.homeDirectory().has_value());
    EXPECT_FALSE(delegate.mainWindowController()->mobileDocumentsDirectory().has_value());
    EXPECT_EQ(delegate.mainWindowController()->labeliCloudSize()->text(), "?");
    EXPECT_TRUE(streams.calls.isEmpty()) << "nothing is watched";
    EXPECT_TRUE(delegate.isObservingWindowClose());
    EXPECT_EQ(menuTitle(0), menuText("MainMenu_Pelmora"));
}

TEST_F(LaunchTest, SandboxedFirstLaunchWithTheRealHomeWatchesAndMeasuresIt)
{
    pretendSandboxed();
    chooser.answer = QString::fromStdString(home.path().string());
    delegate.applicationDidFinishLaunching();

    MainWindowController* controller = delegate.mainWindowController();
    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(streams.paths, QStringList({iCloudFolder()}));
    ASSERT_TRUE(runEventLoopUntil([&] {
        return controller->labeliCloudSize()->text() != "?" &&
               !controller->isCalculatingiCloudSizeInProgress();
    }));
}

} // namespace
