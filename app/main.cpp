#include "app/AppDelegate.h"
#include "app/GraphicalSession.h"
#include "app/iCloudPrefs.h"
#include "platform/BundleInfo.h"
#include "platform/FreedesktopFileManager.h"
#include "platform/MessageBoxAlertPresenter.h"
#include "platform/PosixPasswordDatabase.h"
#include "platform/ProcRunningApplications.h"
#include "platform/QtFolderChooser.h"
#include "platform/UserDefaults.h"

#include <QApplication>
#include <QTimer>
#include <cstdio>

int main(int argc, char* argv[])
{
    if (!GraphicalSession::seemsAvailable()) {
        std::fprintf(stderr, "%s\n", GraphicalSession::missingMessage());
        return GraphicalSession::kExitCode;
    }
    GraphicalSession::guardStartup();
    QApplication application(argc, argv);
    GraphicalSession::endStartupGuard();
    QApplication::setApplicationName(QString::fromLatin1(BundleInfo::kBundleName));
    QApplication::setApplicationVersion(QString::fromLatin1(BundleInfo::kVersion));

    UserDefaults defaults(UserDefaults::standardFilePath());
    iCloudPrefs::registerDefaults(defaults);
    QtFolderChooser folderChooser;
    PosixPasswordDatabase passwords;
    ProcRunningApplications runningApplications;
    MessageBoxAlertPresenter alerts;
    FreedesktopFileManager fileManager;
    AppDelegate delegate({defaults, folderChooser, passwords, runningApplications, alerts, fileManager});
    QTimer::singleShot(0, &delegate, &AppDelegate::applicationDidFinishLaunching);
    return QApplication::exec();
}
