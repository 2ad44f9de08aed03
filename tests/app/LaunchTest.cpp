#include "app/AppDelegate.h"
#include "app/iCloudPrefs.h"
#include "platform/FolderChooser.h"
#include "platform/PosixPasswordDatabase.h"
#include "platform/UserDefaults.h"
#include "support/TestHome.h"
#include "ui/main/MainWindowController.h"

#include <QProcess>
#include <gtest/gtest.h>

namespace {

class RefusingFolderChooser : public FolderChooser {
public:
    std::optional<QString> chooseFolder(const QString&) override
    {
        ++asked;
        return std::nullopt;
    }
    int asked = 0;
};

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
        std::unique_ptr<QProcess> program(
            startProgram({"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}, added));
        ASSERT_TRUE(program->waitForFinished(20000));
        const QString errors = QString::fromUtf8(program->readAllStandardError()).trimmed();
        EXPECT_NE(program->exitCode(), 0);
        EXPECT_EQ(program->exitStatus(), QProcess::NormalExit) << "no crash, no abort";
        EXPECT_EQ(errors.count('\n'), 0) << errors.toStdString();
        EXPECT_TRUE(errors.contains("needs a graphical session")) << errors.toStdString();
    }
}

TEST(LaunchTest, OpensTheMainWindowTitledWithTheProductNameAndUsesTheProcessHome)
{
    TestHome home;
    UserDefaults defaults(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(defaults);
    RefusingFolderChooser chooser;
    PosixPasswordDatabase passwords;
    AppDelegate delegate({defaults, chooser, passwords});

    delegate.applicationDidFinishLaunching();

    ASSERT_NE(delegate.mainWindowController(), nullptr);
    EXPECT_TRUE(delegate.mainWindowController()->isVisible());
    EXPECT_EQ(delegate.mainWindowController()->windowTitle(), "Pelmora");
    EXPECT_FALSE(delegate.sandboxed());
    EXPECT_EQ(delegate.homeDirectory(), QString::fromStdString(home.path().string()));
    EXPECT_EQ(chooser.asked, 0);
}

} // namespace
