#include "AppDelegate.h"

#include "app/MainMenu.h"
#include "Helpers/BundleInfo.h"
#include "platform/AlertPresenter.h"
#include "platform/Localizer.h"
#include "store/iCloudPrefs.h"
#include "ui/home/HomeFolderAcquisition.h"
#include "ui/inspector/InspectorWindowController.h"
#include "ui/main/MainWindowController.h"

#include <algorithm>
#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QMenuBar>
#include <QMessageBox>
#include <QUrl>

AppDelegate::AppDelegate(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
{
}

AppDelegate::~AppDelegate()
{
    // The menu goes before the window; a window being taken down has nothing to tell it.
    if (m_mainWindowController)
        m_mainWindowController->disconnect(this);
    applicationWillTerminate();
}

bool AppDelegate::isSandboxed() const
{
    return HomeFolderAcquisition::isSandboxedHome(QDir::homePath(), m_services.passwords);
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
                                            [this] { return isSandboxed(); },
                                            [this] { return m_homeDirectory; },
                                            [this](const QString& home) { m_homeDirectory = home; },
                                            m_services.streamFactory,
                                            m_services.quitAppsCheckInterval,
                                            m_services.copier,
                                            m_services.now};
    m_mainWindowController = std::make_unique<MainWindowController>(services);
    m_mainWindowController->setShowBackupInfoHandler([this] { showBackupInfo(); });
    m_mainMenu = std::make_unique<MainMenu>(m_mainWindowController->menuBar());
    connectMainMenu();
    connect(m_mainWindowController.get(), &MainWindowController::commandStatesChanged, this,
            &AppDelegate::validateMenuItems);
    validateMenuItems();
    m_mainWindowController->showWindow();
}

// Outside a sandbox the window has started the same watch already; a second start is refused by the
// watcher, so the folder it watches is the one set up first.
void AppDelegate::startWithHomeDirectory()
{
    m_mainWindowController->useHomeDirectory(*m_homeDirectory);
}

void AppDelegate::observeWindowClose()
{
    qApp->installEventFilter(this);
    m_observingWindowClose = true;
}

void AppDelegate::translateMainMenu()
{
    Localizer::localizeMenu(m_mainWindowController->menuBar(), QStringLiteral("MainMenu"),
                            QStringLiteral("MainMenu"));
}

void AppDelegate::connectMainMenu()
{
    using Command = MainMenu::Command;
    const auto on = [this](Command command, auto handler) {
        QAction* item = m_mainMenu->action(command);
        connect(item, &QAction::triggered, this, [this, item, handler] {
            // A shortcut can fire with the menu closed: validate again at the moment of use.
            if (validateMenuItem(item))
                handler();
        });
    };
    on(Command::About, [this] { showAboutWindow(); });
    on(Command::HomePage, [this] { openPelmoraHomePage(); });
    on(Command::Quit, [this] { requestQuit(true); });
    on(Command::ShowMainWindow, [this] { m_mainWindowController->showWindow(); });
    on(Command::Minimize, [] {
        if (QWidget* window = QApplication::activeWindow())
            window->showMinimized();
    });
    on(Command::CloseWindow, [] {
        if (QWidget* window = QApplication::activeWindow())
            window->close();
    });
    on(Command::CreateBackup, [this] { createBackup(); });
    on(Command::RestoreBackup, [this] { restoreBackup(); });
    on(Command::ShowBackupInfo, [this] { showBackupInfo(); });
    on(Command::ShowInFinder, [this] { showInFinder(); });
    on(Command::DeleteBackup, [this] { deleteBackup(); });
    on(Command::AskBeforeDeletingBackups, [this] { askBeforeDeletingBackupsChanged(); });
    for (QAction* top : m_mainWindowController->menuBar()->actions()) {
        if (QMenu* menu = top->menu())
            connect(menu, &QMenu::aboutToShow, this, [this, menu] { validateMenu(menu); });
    }
    connect(m_mainMenu->windowMenu(), &QMenu::aboutToShow, this, [this] { listInspectorsInWindowMenu(); });
    QAction* askBeforeDeleting = m_mainMenu->action(Command::AskBeforeDeletingBackups);
    askBeforeDeleting->setChecked(menuItemState(askBeforeDeleting));
}

// Every item, whether its menu is open or not: a disabled item's shortcut is dead, so the states must be
// right whenever a key can be pressed, not only while a menu shows.
void AppDelegate::validateMenuItems()
{
    for (QAction* top : m_mainWindowController->menuBar()->actions()) {
        if (QMenu* menu = top->menu())
            validateMenu(menu);
    }
}

void AppDelegate::validateMenu(QMenu* menu)
{
    for (QAction* item : menu->actions()) {
        if (item->isSeparator() || item->menu())
            continue;
        item->setEnabled(validateMenuItem(item));
        if (item->isCheckable())
            item->setChecked(menuItemState(item));
    }
}

// Read from the preferences each time the menu opens: the delete confirmation's "Don't ask again"
// changes the same preference while the menu is closed.
bool AppDelegate::menuItemState(const QAction* item) const
{
    switch (MainMenu::commandOf(item)) {
    case MainMenu::Command::AskBeforeDeletingBackups:
        return !iCloudPrefs::dontAskAgainRemoveBackup(m_services.defaults);
    default:
        return item->isChecked();
    }
}

// The tick the user has just set is what is stored; the item says the opposite of the preference.
void AppDelegate::askBeforeDeletingBackupsChanged()
{
    const QAction* item = m_mainMenu->action(MainMenu::Command::AskBeforeDeletingBackups);
    iCloudPrefs::setDontAskAgainRemoveBackup(m_services.defaults, !item->isChecked());
}

bool AppDelegate::hasSelection() const
{
    return m_mainWindowController && !m_mainWindowController->backups().isEmpty() &&
           m_mainWindowController->selectedRow() != -1;
}

// The asymmetries are intended: a running backup leaves Back Up and Delete enabled; only Restore is
// blocked by both operations.
bool AppDelegate::validateMenuItem(const QAction* item) const
{
    if (!m_mainMenu || !m_mainWindowController)
        return true;
    const MainWindowController& controller = *m_mainWindowController;
    switch (MainMenu::commandOf(item)) {
    case MainMenu::Command::CreateBackup:
        return !controller.isiCloudBeingRestored();
    case MainMenu::Command::RestoreBackup:
        return hasSelection() && !controller.isiCloudBackingUp() && !controller.isiCloudBeingRestored();
    case MainMenu::Command::ShowBackupInfo:
    case MainMenu::Command::ShowInFinder:
        return hasSelection();
    case MainMenu::Command::DeleteBackup:
        return hasSelection() && !controller.isiCloudBeingRestored();
    default:
        return true;
    }
}

void AppDelegate::bringMainWindowForward()
{
    if (!m_mainWindowController->isVisible())
        m_mainWindowController->showWindow();
}

void AppDelegate::createBackup()
{
    bringMainWindowForward();
    m_mainWindowController->backUpNow();
}

void AppDelegate::restoreBackup()
{
    bringMainWindowForward();
    m_mainWindowController->restoreFromBackup();
}

void AppDelegate::showInFinder()
{
    m_mainWindowController->showInFinder();
}

void AppDelegate::deleteBackup()
{
    m_mainWindowController->deleteBackup();
}

void AppDelegate::showBackupInfo()
{
    if (!m_mainWindowController)
        return;
    const int row = m_mainWindowController->selectedRow();
    if (row == -1 || row >= m_mainWindowController->backups().count())
        return;
    const BackupRecordRef record = m_mainWindowController->backups().at(row);
    inspectorForBackup(record)->showBackupInfo(record);
}

InspectorWindowController* AppDelegate::inspectorForBackup(const BackupRecordRef& backup)
{
    // The iCloud folder as the main window knows it now: a compare goes to the folder it watches.
    const std::optional<QString>& iCloudFolder = m_mainWindowController->mobileDocumentsDirectory();
    for (const auto& inspector : m_inspectorControllers) {
        if (inspector->backupInfo() == backup) {
            inspector->setMobileDocumentsDirectory(iCloudFolder);
            return inspector.get();
        }
    }
    auto inspector = std::make_unique<InspectorWindowController>(m_services.fileManager);
    inspector->setMobileDocumentsDirectory(iCloudFolder);
    // Beside the main window, each new one a little further, rather than wherever the system puts it; but
    // on the main window's screen, even when the main window sits at its edge.
    const int offset = 32 * static_cast<int>(m_inspectorControllers.size() % 8);
    const QPoint besideMainWindow =
        m_mainWindowController->frameGeometry().topRight() + QPoint(16 + offset, offset);
    inspector->moveWithinScreen(besideMainWindow, m_mainWindowController->screen());
    m_inspectorControllers.push_back(std::move(inspector));
    return m_inspectorControllers.back().get();
}

// Each open info window, under the backup's date and time.
void AppDelegate::listInspectorsInWindowMenu()
{
    QMenu* menu = m_mainMenu->windowMenu();
    for (QAction* item : m_inspectorMenuItems)
        menu->removeAction(item);
    qDeleteAll(m_inspectorMenuItems);
    m_inspectorMenuItems.clear();
    for (const auto& inspector : m_inspectorControllers) {
        const BackupRecordRef& backup = inspector->backupInfo();
        if (!backup || !inspector->isVisible())
            continue;
        const std::optional<QDateTime> date = backup->backupDate();
        const QString when = date ? QLocale().toString(date->toLocalTime(), QLocale::ShortFormat) : QString();
        auto* item = new QAction(
            Localizer::localizedStringForKey(QStringLiteral("menuItemTitleBackup")).arg(when), menu);
        InspectorWindowController* window = inspector.get();
        connect(item, &QAction::triggered, window, [window] {
            window->show();
            window->raise();
            window->activateWindow();
        });
        if (m_inspectorMenuItems.isEmpty())
            m_inspectorMenuItems << menu->addSeparator();
        menu->addAction(item);
        m_inspectorMenuItems << item;
    }
}

bool AppDelegate::applicationShouldTerminate(bool canAsk)
{
    MainWindowController* controller = m_mainWindowController.get();
    if (!controller || (!controller->isiCloudBackingUp() && !controller->isiCloudBeingRestored()))
        return true;
    if (canAsk && runQuitConfirmationDlg() != AlertResponse::kFirstButton)
        return false;
    // A partly restored iCloud folder is left as it is, deliberately; an unfinished backup goes, but only
    // the folder of the run under way, never one a record names.
    controller->stopForQuit();
    return true;
}

int AppDelegate::runQuitConfirmationDlg()
{
    const bool backingUp = m_mainWindowController->isiCloudBackingUp();
    Alert alert;
    alert.buttons = {{Localizer::yesButtonTitle(), QStringLiteral("\r")},
                     {Localizer::noButtonTitle(), QStringLiteral("\033")}};
    alert.messageText =
        Localizer::localizedStringForKey(backingUp ? QStringLiteral("alertiCloudIsBeingBackedUpMsg")
                                                   : QStringLiteral("alertiCloudIsBeingRestoredMsg"));
    alert.informativeText =
        Localizer::localizedStringForKey(backingUp ? QStringLiteral("alertiCloudIsBeingBackedUpInfo")
                                                   : QStringLiteral("alertiCloudIsBeingRestoredInfo"));
    return m_services.alerts.runModal(alert).code;
}

void AppDelegate::requestQuit(bool canAsk)
{
    if (!applicationShouldTerminate(canAsk))
        return;
    applicationWillTerminate();
    // Not quit(): that asks every window to close first, and a window showing running work refuses.
    // The guard above has already decided.
    QCoreApplication::exit(0);
}

void AppDelegate::applicationWillTerminate()
{
    if (m_observingWindowClose) {
        qApp->removeEventFilter(this);
        m_observingWindowClose = false;
    }
}

bool AppDelegate::applicationShouldHandleReopen()
{
    if (m_mainWindowController && m_mainWindowController->isVisible())
        return true;
    if (m_mainWindowController)
        m_mainWindowController->showWindow();
    return false;
}

void AppDelegate::showAboutWindow()
{
    QMessageBox::about(
        m_mainWindowController.get(), QString::fromLatin1(BundleInfo::kBundleName),
        QStringLiteral("<b>%1</b><br>%2")
            .arg(QString::fromLatin1(BundleInfo::kBundleName), QString::fromLatin1(BundleInfo::kVersion)));
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

// Forgets an info window as it closes, so the next Get Info for its backup makes a new one. Any other
// window (the main window, the about box, alerts) is left alone.
void AppDelegate::_windowClosed(QWidget* window)
{
    const auto found = std::find_if(m_inspectorControllers.begin(), m_inspectorControllers.end(),
                                    [window](const auto& inspector) { return inspector.get() == window; });
    if (found == m_inspectorControllers.end())
        return;
    // Deleted once its close event is over, not in the middle of it.
    found->release()->deleteLater();
    m_inspectorControllers.erase(found);
}
