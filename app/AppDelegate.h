#pragma once

#include "operations/CopyOperation.h"
#include "store/BackupRecord.h"
#include "watch/SCEvents.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <QDateTime>
#include <QObject>
#include <QString>
#include <vector>

class AlertPresenter;
class FileManager;
class InspectorWindowController;
class FolderChooser;
class MainMenu;
class MainWindowController;
class PasswordDatabase;
class QAction;
class QMenu;
class QWidget;
class RunningApplications;
class UserDefaults;

// Puts the program together at launch and holds what lives for the whole run.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    struct Services {
        UserDefaults& defaults;
        FolderChooser& folderChooser;
        const PasswordDatabase& passwords;
        RunningApplications& runningApplications;
        AlertPresenter& alerts;
        FileManager& fileManager;
        SCEvents::StreamFactory streamFactory = {}; // empty: the platform's stream
        std::chrono::milliseconds quitAppsCheckInterval{1000};
        CopyOperation::Copier copier = {};   // empty: DirectoryCopier; tests wrap it to act at a chosen file
        std::function<QDateTime()> now = {}; // when a backup starts; empty: the wall clock
    };

    explicit AppDelegate(Services services, QObject* parent = nullptr);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();

    bool isSandboxed() const;
    bool sandboxed() const { return m_sandboxed; }
    const std::optional<QString>& homeDirectory() const { return m_homeDirectory; }
    void setHomeDirectory(const std::optional<QString>& homeDirectory) { m_homeDirectory = homeDirectory; }
    MainWindowController* mainWindowController() const { return m_mainWindowController.get(); }
    MainMenu* mainMenu() const { return m_mainMenu.get(); }
    bool isObservingWindowClose() const { return m_observingWindowClose; }

    void showAboutWindow();
    void openPelmoraHomePage();

    // Menu commands.
    void createBackup();
    void restoreBackup();
    void showInFinder();
    void deleteBackup();
    void showBackupInfo();
    void askBeforeDeletingBackupsChanged();
    bool validateMenuItem(const QAction* item) const;
    bool menuItemState(const QAction* item) const;

    // The one inspector for a backup record (found by the record's identity), created on first use.
    InspectorWindowController* inspectorForBackup(const BackupRecordRef& backup);
    const std::vector<std::unique_ptr<InspectorWindowController>>& inspectorControllers() const
    {
        return m_inspectorControllers;
    }

    // The quit guard: while a backup or a restore runs, asks first (or, when nobody can be asked, takes
    // the answer as Yes); on Yes the copy is cancelled and an unfinished backup folder removed.
    bool applicationShouldTerminate(bool canAsk = true);
    void applicationWillTerminate();
    int runQuitConfirmationDlg();
    // Every way to quit ends here: the menu, the session's end, SIGTERM and SIGINT.
    void requestQuit(bool canAsk);
    // A second start of the program: shows the main window again if it is hidden.
    bool applicationShouldHandleReopen();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void createMainWindow();
    void startWithHomeDirectory();
    void observeWindowClose();
    void translateMainMenu();
    void connectMainMenu();
    void _windowClosed(QWidget* window);
    void bringMainWindowForward();
    void validateMenuItems();
    void validateMenu(QMenu* menu);
    void listInspectorsInWindowMenu();
    bool hasSelection() const;

    Services m_services;
    std::unique_ptr<MainWindowController> m_mainWindowController;
    std::unique_ptr<MainMenu> m_mainMenu;
    bool m_sandboxed = false;
    std::optional<QString> m_homeDirectory;
    bool m_observingWindowClose = false;
    std::vector<std::unique_ptr<InspectorWindowController>> m_inspectorControllers;
    QList<QAction*> m_inspectorMenuItems;
};
