#pragma once

#include "operations/BackupOperation.h"
#include "operations/RestoreOperation.h"
#include "store/BackupStore.h"
#include "ui/main/CustomTableView.h"
#include "ui/main/FolderSizeWatch.h"
#include "ui/main/OperationProgressWindow.h"
#include "watch/SCEvents.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <QDateTime>
#include <QMainWindow>
#include <QPointer>

class AlertPresenter;
class BackupAlerts;
class BackupsTableModel;
class FileManager;
class FolderChooser;
class PasswordDatabase;
class QuitAppsRequestWindowController;
class QAction;
class QLabel;
class QMenu;
class QPushButton;
class RunningApplications;
class UserDefaults;

namespace Ui {
class MainWindowController;
} // namespace Ui

// The one main window: the iCloud folder's size, the backups table with its buttons and context menu,
// the last-backup line, and the progress window that copies use. It also holds the state the backup
// operations share and the watcher of the iCloud folder, whose every event re-measures the folder.
class MainWindowController : public QMainWindow, public CustomTableViewDelegate {
    Q_OBJECT

public:
    // The commands a menu item or a button can carry; validation goes by them.
    enum class Action { ShowBackupInfo, ShowInFinder, RestoreFromBackup, DeleteBackup, BackUpNow };

    struct Services {
        UserDefaults& defaults;
        RunningApplications& runningApplications;
        AlertPresenter& alerts;
        FolderChooser& folderChooser;
        const PasswordDatabase& passwords;
        FileManager& fileManager;
        // The application delegate's answers: whether it runs sandboxed, and the user's home folder.
        std::function<bool()> isSandboxed;
        std::function<std::optional<QString>()> homeDirectory;
        std::function<void(const QString&)> setHomeDirectory;
        SCEvents::StreamFactory streamFactory = {}; // empty: the platform's stream
        std::chrono::milliseconds quitAppsCheckInterval{1000};
        // The copy step's walk; empty: DirectoryCopier. Tests wrap it to act at a chosen file.
        using CopierFunction = CopyOperation::Copier;
        CopierFunction copier = {};
        // When a backup starts, which names its folder; empty: the wall clock.
        std::function<QDateTime()> now = {};
    };

    // What the platform's user-interface library reports as its version: later than 10.9's (1265).
    static constexpr double kUserInterfaceLibraryVersion = 2299.0;
    // How long quitting waits for the copier to leave a backup folder before removing it: the whole quit
    // must stay within two seconds.
    static constexpr std::chrono::milliseconds kQuitWait{1500};

    explicit MainWindowController(Services services, QWidget* parent = nullptr);
    ~MainWindowController() override;

    // Shows the window, setting it up the first time.
    void showWindow();

    // Stops every walk and copy for good, the quit guard's way: a backup folder that the run under way made
    // and no record names is removed once the copier has left it (waiting at most kQuitWait).
    void stopForQuit();

    bool isiCloudBackingUp() const { return m_iCloudBackingUp; }
    void setICloudBackingUp(bool running);
    bool isiCloudBeingRestored() const { return m_iCloudBeingRestored; }
    void setICloudBeingRestored(bool running);
    bool isCalculatingiCloudSizeInProgress() const { return m_folderSize->isMeasuring(); }

    const std::optional<QString>& mobileDocumentsDirectory() const { return m_mobileDocumentsDirectory; }
    void setMobileDocumentsDirectory(const std::optional<QString>& path);
    // The iCloud folder of `home` from now on: watched (unless the watcher runs already) and measured.
    void useHomeDirectory(const QString& home);
    BackupStore& backups() { return m_backups; }
    const BackupStore& backups() const { return m_backups; }
    SCEvents* folderEvents() const { return m_folderSize->events(); }
    const QString& iCloudBackupDirectory() const { return m_iCloudBackupDirectory; }
    // The counters of the run under way, or of the last one.
    std::uint64_t totalSizeOfItemsToCopy() const
    {
        return m_lastRun ? m_lastRun->totalSizeOfItemsToCopy() : 0;
    }
    std::int32_t totalCountOfItemsToCopy() const
    {
        return m_lastRun ? m_lastRun->totalCountOfItemsToCopy() : 0;
    }
    std::uint64_t currentSizeOfCopiedItems() const
    {
        return m_lastRun ? m_lastRun->currentSizeOfCopiedItems() : 0;
    }
    std::int32_t currentCountOfCopiedItems() const
    {
        return m_lastRun ? m_lastRun->currentCountOfCopiedItems() : 0;
    }
    // The back-up run under way, or the last one; null before the first.
    const BackupOperation* backUpRun() const { return m_backUpRun.get(); }
    const RestoreOperation* restoreRun() const { return m_restoreRun.get(); }
    QuitAppsRequestWindowController* quitAppsController() const { return m_quitAppsController.get(); }

    // Makes a new backup of the iCloud folder: checks on this thread, then counts and copies in the
    // background behind the progress window. Returns as soon as the work is started or a check failed.
    void backUpNow();
    // Makes the live iCloud folder look like the selected backup: checks and the confirmation here, then
    // prunes the live folder and counts what is missing in the background, checks free space, and
    // copies the missing items back. No message at the end, whatever happened.
    void restoreFromBackup();
    // Removes the selected backup's folder and record, after a confirmation the user can switch off.
    // Synchronous, as the list must not show a backup that is half gone.
    void deleteBackup();
    // Shows the selected backup's folder in the file manager.
    void showInFinder();
    // The Cancel button: the running count or copy stops at its next file; nothing waits for it here.
    void cancelCopying();

    // Table data source.
    int numberOfRowsInTableView() const;
    QVariant objectValueForTableColumn(const QString& identifier, int row) const;
    int selectedRow() const;

    QMenu* contextualMenuForTableView(CustomTableView* table, int row) override;
    bool validateMenuItem(const QAction* item) const;

    int calculateCountOfRunningAppsThatUseiCloud() const;
    void setiCloudSize();

    // The application delegate opens info windows: the table's double click and Get Info go there.
    void setShowBackupInfoHandler(std::function<void()> handler) { m_showBackupInfo = std::move(handler); }

    // Outlets, for the operations of the controller and for tests.
    QLabel* labeliCloudSize() const;
    QLabel* lastBackupInfoLabel() const;
    QLabel* tableViewPlaceholderLabel() const { return m_tableViewPlaceholderLabel; }
    CustomTableView* backupsTable() const;
    QPushButton* deleteBackupBtn() const;
    QPushButton* showInFinderBtn() const;
    QPushButton* restoreFromBackupBtn() const;
    QPushButton* backUpNowBtn() const;
    OperationProgressWindow* operationProgressWindow() const { return m_operationProgressWindow.get(); }

signals:
    // Something a command's enabled state depends on has changed: the selection, the list of backups, a
    // backup or restore starting or ending, or the iCloud folder becoming known. Menus re-validate then,
    // so that a shortcut is live exactly when its command is allowed.
    void commandStatesChanged();
    void iCloudSizeChanged();
    // A backup ended: recorded, cancelled, refused for lack of space, or stopped while counting.
    void backUpFinished();
    // A restore ended, the same ways.
    void restoreFinished();

protected:
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void performAction(Action action);
    static Action actionOf(const QAction* item);
    void setLastBackupInfo();
    static bool isYosemiteRunning(double libraryVersion = kUserInterfaceLibraryVersion);
    void runNotAvailableiCloudAlert();
    void runNotEnoughDiskSpaceAlert();
    void runItemsNotCopiedAlert(const std::vector<FsError>& items);
    void runBackupNotMadeAlert(const BackupOperation& run);
    // A failed write of the preferences: said once per session; the list in memory stays as it is.
    void preferencesWriteFailed(const QString& file, const QString& reason);
    void windowDidLoad();
    void restoreWindowFrame();
    void saveWindowFrame();
    void resetOperationState();
    void connectTable();
    void styleiCloudCaption();
    void localizeTexts();
    void startWatchingiCloudFolder();
    void finishiCloudSizeCalculation(std::uint64_t totalSize);
    void restyleSizeLabel(QLabel* label);
    void placePlaceholder();
    QAction* addMenuItem(QMenu* menu, const QString& titleKey, Action action, const QKeySequence& shortcut,
                         int row);
    bool askForHomeDirectory();
    void showQuitAppsRequest(int tag, const char* windowTitleKey, const char* buttonTitleKey);
    std::unique_ptr<QuitAppsRequestWindowController> makeQuitAppsRequest();
    void beginBackUp();
    void showProgressWindow(const char* titleKey, const char* infoKey, const QWidget* centerOver);
    void setCopyButtonsEnabled(bool enabled);
    void connectRun(CopyOperation& run, const char* copyingKey);
    void showCopyProgress();
    void finishBackUp();
    void recordBackUp(const BackupOperation& run);
    bool isRecorded(const QString& folder) const;
    void sweepUnfinishedBackups();
    bool removeBackupFolder(const QString& folder);
    bool checkRestorePreconditions(QString& backupFolder);
    void beginRestore(const QString& backupFolder);
    void finishRestore();
    static QString restoreSummary(const RestoreOperation& run);
    static QString restoreDetails(const RestoreOperation& run);
    static std::vector<std::pair<const char*, const std::vector<FsError>*>>
    restoreGroups(const RestoreOperation& run);

    Services m_services;
    std::unique_ptr<Ui::MainWindowController> m_ui;
    std::unique_ptr<OperationProgressWindow> m_operationProgressWindow;
    QLabel* m_tableViewPlaceholderLabel = nullptr;
    BackupsTableModel* m_tableModel = nullptr;
    bool m_windowLoaded = false;

    bool m_iCloudBackingUp = false;
    bool m_iCloudBeingRestored = false;
    std::unique_ptr<BackupOperation> m_backUpRun;
    std::unique_ptr<RestoreOperation> m_restoreRun;
    CopyOperation* m_lastRun = nullptr;
    // Folders whose record is in the list but not yet on disk: their mark stays until a write succeeds.
    QStringList m_unsavedRecordFolders;
    bool m_toldAboutPreferences = false;
    std::optional<QString> m_mobileDocumentsDirectory;
    BackupStore m_backups;
    std::unique_ptr<FolderSizeWatch> m_folderSize;
    QString m_iCloudBackupDirectory;
    std::function<void()> m_showBackupInfo;
    std::unique_ptr<BackupAlerts> m_alerts;
    std::unique_ptr<QuitAppsRequestWindowController> m_quitAppsController;
};
