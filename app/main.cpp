#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "app/GraphicalSession.h"
#include "Helpers/BundleInfo.h"
#include "Helpers/ParallelWalk.h"
#include "platform/FreedesktopFileManager.h"
#include "platform/MessageBoxAlertPresenter.h"
#include "platform/PosixPasswordDatabase.h"
#include "platform/ProcRunningApplications.h"
#include "platform/QtFolderChooser.h"
#include "platform/SingleInstance.h"
#include "platform/TerminationSignals.h"
#include "platform/UserDefaults.h"
#include "store/iCloudPrefs.h"

#include <cstdio>
#include <optional>
#include <QApplication>
#include <QIcon>
#include <QSessionManager>
#include <QThreadPool>
#include <QTimer>

namespace {

// The exit status when this start is not the one to run.
std::optional<int> claimOrEnd(SingleInstance& instance)
{
    switch (instance.claim()) {
    case SingleInstance::Claim::Launch:
        return std::nullopt;
    case SingleInstance::Claim::HandedOver:
        return 0;
    case SingleInstance::Claim::AlreadyRunning:
        break;
    }
    std::fprintf(stderr, "%s\n", qPrintable(instance.alreadyRunningMessage()));
    return SingleInstance::kAlreadyRunningExitCode;
}

} // namespace

int main(int argc, char* argv[])
{
    const CommandLine commandLine(CommandLine::argumentsOf(argc, argv));
    if (commandLine.action() != CommandLine::Action::Run)
        return commandLine.answerWithoutRunning();
    if (!GraphicalSession::seemsAvailable()) {
        std::fprintf(stderr, "%s\n", GraphicalSession::missingMessage());
        return GraphicalSession::kExitCode;
    }
    GraphicalSession::guardStartup();
    QApplication application(argc, argv);
    GraphicalSession::endStartupGuard();
    QApplication::setApplicationName(QString::fromLatin1(BundleInfo::kBundleName));
    QApplication::setApplicationVersion(QString::fromLatin1(BundleInfo::kVersion));
    // The installed desktop entry and icon (resources/desktop) go by this name; a desktop matches the
    // windows to them through it, and an installed program finds its icon in the theme.
    QGuiApplication::setDesktopFileName(QStringLiteral("app.pelmora.Pelmora"));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("app.pelmora.Pelmora")));
    // Closing the main window only hides it; quitting is a command of its own.
    QApplication::setQuitOnLastWindowClosed(false);
    // The parallel walks share the program's pool; a task it cannot start at once is the caller's share.
    ParallelWalk::setStarter(
        [](std::function<void()> task) { return QThreadPool::globalInstance()->tryStart(std::move(task)); });

    // Before the preferences are opened: a second program must not even set an unreadable file aside.
    SingleInstance instance(SingleInstance::standardPlaces());
    if (const std::optional<int> exitCode = claimOrEnd(instance))
        return *exitCode;

    UserDefaults defaults(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(defaults);
    QtFolderChooser folderChooser;
    PosixPasswordDatabase passwords;
    ProcRunningApplications runningApplications;
    MessageBoxAlertPresenter alerts;
    FreedesktopFileManager fileManager;
    AppDelegate delegate({defaults, folderChooser, passwords, runningApplications, alerts, fileManager});

    QObject::connect(&instance, &SingleInstance::reopenRequested, &delegate,
                     [&delegate] { delegate.applicationShouldHandleReopen(); });
    TerminationSignals terminationSignals;
    terminationSignals.install();
    // Nobody can be asked on a signal: the answer is Yes.
    QObject::connect(&terminationSignals, &TerminationSignals::terminationRequested, &delegate,
                     [&delegate] { delegate.requestQuit(false); });
    QObject::connect(&application, &QGuiApplication::commitDataRequest, &delegate,
                     [&delegate](QSessionManager& session) {
                         if (!delegate.applicationShouldTerminate(session.allowsInteraction()))
                             session.cancel();
                     });

    QTimer::singleShot(0, &delegate, &AppDelegate::applicationDidFinishLaunching);
    return QApplication::exec();
}
