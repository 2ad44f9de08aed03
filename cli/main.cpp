#include "cli/Tool.h"
#include "cli/ToolArguments.h"
#include "Helpers/ParallelWalk.h"
#include "platform/FreedesktopNotifications.h"
#include "platform/PosixPasswordDatabase.h"
#include "platform/ProcRunningApplications.h"
#include "platform/SingleInstance.h"
#include "platform/TerminationSignals.h"
#include "platform/UserDefaults.h"
#include "store/iCloudPrefs.h"

#include <cstdio>
#include <QCoreApplication>
#include <QThreadPool>
#include <unistd.h>

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Pelmora"));
    QString error;
    const std::optional<ToolArguments> arguments =
        ToolArguments::parse(QCoreApplication::arguments().mid(1), error);
    if (!arguments) {
        std::fprintf(stderr, "pelmora: %s (pelmora --help lists the commands)\n", qPrintable(error));
        return Tool::kRefused;
    }
    ParallelWalk::setStarter(
        [](std::function<void()> task) { return QThreadPool::globalInstance()->tryStart(std::move(task)); });
    SingleInstance instance(SingleInstance::standardPlaces());
    UserDefaults defaults(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(defaults);
    PosixPasswordDatabase passwords;
    ProcRunningApplications runningApplications;
    FreedesktopNotifications notifications;
    Tool tool({defaults,
               runningApplications,
               passwords,
               instance,
               stdout,
               stderr,
               ::isatty(STDERR_FILENO) == 1,
               {},
               &notifications,
               QCoreApplication::applicationFilePath()});
    TerminationSignals termination;
    termination.install();
    QObject::connect(&termination, &TerminationSignals::terminationRequested, &tool,
                     [&tool] { tool.cancel(); });
    return tool.run(*arguments);
}
