#include "AppDelegate.h"

#include "Helpers/Localizer.h"
#include "app/HomeFolderAcquisition.h"
#include "app/MainMenu.h"
#include "platform/BundleInfo.h"
#include "ui/main/MainWindowController.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QMenuBar>
#include <QMessageBox>
#include <QThread>
#include <QUrl>

AppDelegate::AppDelegate(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
{
}

AppDelegate::~AppDelegate()
{
    if (m_observingWindowClose)
        qApp->removeEventFilter(this);
}

bool AppDelegate::isSandboxed()
{
    return HomeFolderAcquisition::isSandboxedHome(QDir::homePath());
}

void AppDelegate::applicationDidFinishLaunching()
{
    createMainWindow();
    m_sandboxed = isSandboxed();
    HomeFolderAcquisition acquisition(m_services.defaults, m_services.folderChooser, m_services.passwords);
    const HomeFolderOutcome outcome = acquisition.run(m_sandboxed, QDir::homePath());
    m_homeDirectory = outcome.homeDirectory;
    // Kept as it is: a wrong folder on the first sandboxed launch ends the launch here.
    if (outcome.endLaunchEarly)
        return;
    if (m_homeDirectory)
        startWithHomeDirectory();
    observeWindowClose();
    translateMainMenu();
}

void AppDelegate::createMainWindow()
{
    MainWindowController::Services services{m_services.defaults,
                                            m_services.runningApplications,
                                            m_services.alerts,
                                            m_services.folderChooser,
                                            m_services.passwords,
                                            m_services.fileManager,
                                            &AppDelegate::isSandboxed,
                                            [this] { return m_homeDirectory; },
                                            [this](const QString& home) { m_homeDirectory = home; },
                                            m_services.streamFactory,
                                            m_services.quitAppsCheckInterval};
    m_mainWindowController = std::make_unique<MainWindowController>(services);
    m_mainMenu = std::make_unique<MainMenu>(m_mainWindowController->menuBar());
    connectMainMenu();
    m_mainWindowController->showWindow();
}

// Outside a sandbox the window has started the same watch already; a second start is refused by the
// watcher, so the folder it watches is the one set up first.
void AppDelegate::startWithHomeDirectory()
{
    MainWindowController& controller = *m_mainWindowController;
    controller.setMobileDocumentsDirectory(HomeFolderAcquisition::mobileDocumentsDirectory(*m_homeDirectory));
    controller.folderEvents()->startWatchingPaths({*controller.mobileDocumentsDirectory()}, QThread::currentThread());
    controller.setiCloudSize();
}

void AppDelegate::observeWindowClose()
{
    qApp->installEventFilter(this);
    m_observingWindowClose = true;
}

void AppDelegate::translateMainMenu()
{
    Localizer::localizeMenu(m_mainWindowController->menuBar(), QStringLiteral("MainMenu"), QStringLiteral("MainMenu"));
}

void AppDelegate::connectMainMenu()
{
    using Command = MainMenu::Command;
    MainWindowController* controller = m_mainWindowController.get();
    const auto on = [this](Command command, auto handler) {
        connect(m_mainMenu->action(command), &QAction::triggered, this, handler);
    };
    on(Command::About, [this] { showAboutWindow(); });
    on(Command::HomePage, [this] { openPelmoraHomePage(); });
    on(Command::Quit, [] { QApplication::quit(); });
    on(Command::ShowMainWindow, [controller] { controller->showWindow(); });
    on(Command::Minimize, [] {
        if (QWidget* window = QApplication::activeWindow())
            window->showMinimized();
    });
    on(Command::CloseWindow, [] {
        if (QWidget* window = QApplication::activeWindow())
            window->close();
    });
    on(Command::CreateBackup, [controller] { controller->performAction(MainWindowController::Action::BackUpNow); });
    on(Command::RestoreBackup,
       [controller] { controller->performAction(MainWindowController::Action::RestoreFromBackup); });
    on(Command::ShowBackupInfo,
       [controller] { controller->performAction(MainWindowController::Action::ShowBackupInfo); });
    on(Command::ShowInFinder, [controller] { controller->performAction(MainWindowController::Action::ShowInFinder); });
    on(Command::DeleteBackup, [controller] { controller->performAction(MainWindowController::Action::DeleteBackup); });
}

void AppDelegate::showAboutWindow()
{
    QMessageBox::about(m_mainWindowController.get(), QString::fromLatin1(BundleInfo::kBundleName),
                       QStringLiteral("<b>%1</b><br>%2").arg(QString::fromLatin1(BundleInfo::kBundleName),
                                                            QString::fromLatin1(BundleInfo::kVersion)));
}

void AppDelegate::openPelmoraHomePage()
{
    QDesktopServices::openUrl(QUrl(QString::fromLatin1(BundleInfo::kHomePage)));
}

bool AppDelegate::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::Close && watched->isWidgetType()) {
        auto* widget = static_cast<QWidget*>(watched);
        if (widget->isWindow())
            _windowClosed(widget);
    }
    return QObject::eventFilter(watched, event);
}

// The hook for forgetting an info window when it closes. No info windows exist yet, so every window
// that closes (the main window, the about box, alerts) is left alone.
void AppDelegate::_windowClosed(QWidget* /*window*/)
{
}
