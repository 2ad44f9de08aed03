#include "app/AppDelegate.h"
#include "support/MainWindowFixture.h"

#include <QAction>
#include <QMenuBar>
#include <QProcess>

namespace {

TEST(GraphicalSessionTest, WithoutADisplayTheProgramSaysSoInOneLineAndFails)
{
    for (const char* display : {"", ":9999"}) {
        SCOPED_TRACE(display);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(name);
        if (*display)
            environment.insert("DISPLAY", display);
        QProcess program;
        program.setProcessEnvironment(environment);
        program.start(PELMORA_BINARY_DIR "/Pelmora", {});
        ASSERT_TRUE(program.waitForFinished(20000));
        const QString errors = QString::fromUtf8(program.readAllStandardError()).trimmed();
        EXPECT_NE(program.exitCode(), 0);
        EXPECT_EQ(program.exitStatus(), QProcess::NormalExit) << "no crash, no abort";
        EXPECT_EQ(errors.count('\n'), 0) << errors.toStdString();
        EXPECT_TRUE(errors.contains("needs a graphical session")) << errors.toStdString();
    }
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
        return controller->labeliCloudSize()->text() != "?" && !controller->isCalculatingiCloudSizeInProgress();
    }));
}

} // namespace
