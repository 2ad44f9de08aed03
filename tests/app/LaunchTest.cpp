#include "Helpers/Localizer.h"
#include "app/AppDelegate.h"
#include "app/MainMenu.h"
#include "app/iCloudPrefs.h"
#include "platform/FolderChooser.h"
#include "platform/PasswordDatabase.h"
#include "platform/UserDefaults.h"
#include "support/EventLoop.h"
#include "support/FakeRunningApplications.h"
#include "support/RecordingFileManager.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/ScriptedEventStream.h"
#include "support/ScriptedChoosers.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"
#include "ui/main/MainWindowController.h"

#include <QAction>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QProcess>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

QProcess* startProgram(const QStringList& removed, const QStringList& added)
{
    auto* process = new QProcess;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& name : removed)
        environment.remove(name);
    for (const QString& pair : added)
        environment.insert(pair.section('=', 0, 0), pair.section('=', 1));
    process->setProcessEnvironment(environment);
    process->start(PELMORA_BINARY_DIR "/Pelmora", {});
    return process;
}

TEST(GraphicalSessionTest, WithoutADisplayTheProgramSaysSoInOneLineAndFails)
{
    for (const QStringList& added : {QStringList{}, QStringList{"DISPLAY=:9999"}}) {
        std::unique_ptr<QProcess> program(startProgram({"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}, added));
        ASSERT_TRUE(program->waitForFinished(20000));
        const QString errors = QString::fromUtf8(program->readAllStandardError()).trimmed();
        EXPECT_NE(program->exitCode(), 0);
        EXPECT_EQ(program->exitStatus(), QProcess::NormalExit) << "no crash, no abort";
        EXPECT_EQ(errors.count('\n'), 0) << errors.toStdString();
        EXPECT_TRUE(errors.contains("needs a graphical session")) << errors.toStdString();
    }
}

class LaunchTest : public ::testing::Test {
protected:
    LaunchTest()
    {
        Localizer::Resources german;
        german.userLanguages = QStringList{"de"};
        Localizer::setResources(german);
        iCloudPrefs::registerDefaults(defaults);
        passwords.home = home.path().string();
        TreeBuilder::writeFileOfSize(home.path() / "Library" / "Mobile Documents" / "com~apple~CloudDocs" / "f", 321);
    }
    ~LaunchTest() override { Localizer::setResources(Localizer::Resources{}); }

    // A home of more than three components reads as a sandbox container.
    void pretendSandboxed() { qputenv("HOME", QByteArray::fromStdString((home.path() / "Containers" / "Data").string())); }
    QString iCloudFolder() const
    {
        return QString::fromStdString((home.path() / "Library" / "Mobile Documents").string());
    }
    QStringList menuTitles() const
    {
        QStringList titles;
        for (QAction* item : delegate.mainWindowController()->menuBar()->actions())
            titles << item->text();
        return titles;
    }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    ScriptedFolderChooser chooser;
    ScriptedPasswordDatabase passwords;
    FakeRunningApplications applications;
    StreamLog streams;
    ScriptedAlertPresenter alerts;
    RecordingFileManager fileManager;
    AppDelegate delegate{{defaults, chooser, passwords, applications, alerts, fileManager, scriptedStreamFactory(streams)}};
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
    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(streams.calls.count("create"), 1) << "the second start is refused by the watcher";
    EXPECT_TRUE(delegate.isObservingWindowClose());
    EXPECT_EQ(menuTitles().value(0), Localizer::localizedStringForKey("MainMenu_Pelmora", "MainMenu"))
        << "the application menu is keyed by the bundle name";
    EXPECT_TRUE(menuTitles().value(0).contains("Pelmora"));
    EXPECT_EQ(menuTitles().value(1), Localizer::localizedStringForKey("MainMenu_File", "MainMenu"));
    EXPECT_NE(menuTitles().value(1), "File");
    ASSERT_TRUE(runEventLoopUntil([&] { return !controller->isCalculatingiCloudSizeInProgress(); }));
    EXPECT_NE(controller->labeliCloudSize()->text(), "?");
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
    EXPECT_EQ(menuTitles().value(1), "File") << "the menu stays untranslated in this launch";
    EXPECT_TRUE(streams.calls.isEmpty());
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
    EXPECT_EQ(menuTitles().value(0), Localizer::localizedStringForKey("MainMenu_Pelmora", "MainMenu"));
}

TEST_F(LaunchTest, SandboxedFirstLaunchWithTheRealHomeWatchesAndMeasuresIt)
{
    pretendSandboxed();
    chooser.answer = QString::fromStdString(home.path().string());
    delegate.applicationDidFinishLaunching();

    MainWindowController* controller = delegate.mainWindowController();
    EXPECT_EQ(controller->mobileDocumentsDirectory(), iCloudFolder());
    EXPECT_EQ(streams.paths, QStringList({iCloudFolder()}));
    ASSERT_TRUE(runEventLoopUntil([&] { return controller->labeliCloudSize()->text() != "?" &&
                                               !controller->isCalculatingiCloudSizeInProgress(); }));
}

} // namespace
