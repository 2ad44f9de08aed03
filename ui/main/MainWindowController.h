#pragma once

#include "engine/BackupStore.h"
#include "ui/main/CustomTableView.h"
#include "watch/SCEvents.h"

#include <QDateTime>
#include <QMainWindow>
#include <QPointer>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

class AlertPresenter;
class BackupAlerts;
class BackupsTableModel;
class FileManager;
class FolderChooser;
class PasswordDatabase;
class QuitAppsRequestWindowController;
class QAction;
class QDialog;
class QLabel;
class QMenu;
class QProgressBar;
class QPushButton;
class RunningApplications;
class UserDefaults;

namespace Ui {
class MainWindowController;
class OperationProgressWindow;
} // namespace Ui

// The one main window: the iCloud folder's size, the backups table with its buttons and context menu,
// the last-backup line, and the progress window that copies use. It also holds the state the backup
// operations share and the watcher of the iCloud folder, whose every event re-measures the folder.
class MainWindowController : public QMainWindow, public CustomTableViewDelegate, public SCEventListenerProtocol {
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
        using CopierFunction =
            std::function<bool(const std::filesystem::path& source, const std::filesystem::path& destination,
                               const std::atomic<bool>& cancelRequested,
                               const std::function<void(const std::filesystem::path&)>& progress)>;
        CopierFunction copier = {};
        // When a backup starts, which names its folder; empty: the wall clock.
        std::function<QDateTime()> now = {};
    };

    static inline const QString kDateColumn = QStringLiteral("date");
    static inline const QString kSizeColumn = QStringLiteral("size");
    // What the platform's user-interface library reports as its version: later than 10.9's (1265).
    static constexpr double kUserInterfaceLibraryVersion = 2299.0;

    explicit MainWindowController(Services services, QWidget* parent = nullptr);
    ~MainWindowController() override;

    // Shows the window, setting it up the first time.
    void showWindow();
    bool isWindowLoaded() const { return m_windowLoaded; }

    bool isiCloudBackingUp() const { return m_iCloudBackingUp; }
    void setICloudBackingUp(bool running) { m_iCloudBackingUp = running; }
    bool isiCloudBeingRestored() const { return m_iCloudBeingRestored; }
    void setICloudBeingRestored(bool running) { m_iCloudBeingRestored = running; }
    bool isCanceled() const { return m_canceled->load(); }
    bool isCalculatingiCloudSizeInProgress() const { return m_calculatingiCloudSize; }
    void setCalculatingiCloudSize(bool calculating) { m_calculatingiCloudSize = calculating; }

    const std::optional<QString>& mobileDocumentsDirectory() const { return m_mobileDocumentsDirectory; }
    void setMobileDocumentsDirectory(const std::optional<QString>& path) { m_mobileDocumentsDirectory = path; }
    BackupStore& backups() { return m_backups; }
    const BackupStore& backups() const { return m_backups; }
    SCEvents* folderEvents() const { return m_folderEvents.get(); }
    const QString& iCloudBackupDirectory() const { return m_iCloudBackupDirectory; }
    std::uint64_t totalSizeOfItemsToCopy() const { return m_totalSizeOfItemsToCopy; }
    std::int32_t totalCountOfItemsToCopy() const { return m_totalCountOfItemsToCopy; }
    std::uint64_t currentSizeOfCopiedItems() const { return m_currentSizeOfCopiedItems; }
    std::int32_t currentCountOfCopiedItems() const { return m_currentCountOfCopiedItems; }
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

    int runRemoveBackupConfirmationDlg();
    int runRestoreConfirmationDlg();
    void runBadHomeDirectoryAlert();
    void runNoBackupSelectedAlert();
    void runNotAvailableiCloudAlert();
    void runNotEnoughDiskSpaceAlert();
    void runBackupNotFoundAlert();
    void runiCloudDriveRequiredAlert();

    // Table data source.
    int numberOfRowsInTableView() const;
    QVariant objectValueForTableColumn(const QString& identifier, int row) const;
    int selectedRow() const;

    QMenu* contextualMenuForTableView(CustomTableView* table, int row) override;
    bool validateMenuItem(const QAction* item) const;
    void pathWatcherEventOccurred(SCEvents* pathWatcher, const std::shared_ptr<SCEvent>& event) override;

    int calculateCountOfRunningAppsThatUseiCloud() const;
    void setLastBackupInfo();
    void setiCloudSize();
    static bool isYosemiteRunning(double libraryVersion = kUserInterfaceLibraryVersion);

    // The application delegate opens info windows: the table's double click and Get Info go there.
    void setShowBackupInfoHandler(std::function<void()> handler) { m_showBackupInfo = std::move(handler); }
    void performAction(Action action);
    static Action actionOf(const QAction* item);

    // Outlets, for the operations of the controller and for tests.
    QLabel* labelCurrentlyIniCloud() const;
    QLabel* labeliCloudSize() const;
    QLabel* allYourBackupsLabel() const;
    QLabel* lastBackupInfoLabel() const;
    QLabel* tableViewPlaceholderLabel() const { return m_tableViewPlaceholderLabel; }
    CustomTableView* backupsTable() const;
    QPushButton* deleteBackupBtn() const;
    QPushButton* showInFinderBtn() const;
    QPushButton* restoreFromBackupBtn() const;
    QPushButton* backUpNowBtn() const;
    QDialog* operationProgressWindow() const { return m_operationProgressWindow.get(); }
    QLabel* operationInfoLabel() const;
    QProgressBar* copyingTotalProgressIndicator() const;
    QPushButton* cancelCopyingBtn() const;

signals:
    void iCloudSizeChanged();
    // A backup ended: recorded, cancelled, refused for lack of space, or stopped while counting.
    void backUpFinished();
    // A restore ended, the same ways.
    void restoreFinished();

protected:
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
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
    void useHomeDirectory(const QString& home);
    void showQuitAppsRequest(int tag, const char* windowTitleKey, const char* buttonTitleKey);
    void beginBackUp();
    void showProgressWindow(const char* titleKey, const char* infoKey, const QWidget* centerOver);
    void centerProgressWindow(const QWidget* over);
    void setCopyButtonsEnabled(bool enabled);
    void startCountingPass(const QDateTime& start);
    bool iCloudVolumeHasRoomFor(std::uint64_t size) const;
    void checkSpaceAndCreateFolder(const QDateTime& start, std::uint64_t size, std::int32_t count);
    void startCopyStep(const QDateTime& start);
    void progressUpdate(const std::filesystem::path& copiedSource);
    void showCopyProgress();
    void finishBackUp(const QDateTime& start, bool copied);
    void endBackUpEarly();
    bool checkRestorePreconditions(QString& backupFolder);
    void beginRestore(const QString& backupFolder);
    void startRestorePreparation(const QString& backupFolder);
    void checkSpaceForRestore(std::uint64_t size, std::int32_t count);
    void startRestoreCopy();
    void endRestore();
    void startCopy(const std::filesystem::path& source, const std::filesystem::path& destination,
                   std::function<void(MainWindowController&, bool)> finish);

    Services m_services;
    std::unique_ptr<Ui::MainWindowController> m_ui;
    std::unique_ptr<Ui::OperationProgressWindow> m_progressUi;
    std::unique_ptr<QDialog> m_operationProgressWindow;
    QLabel* m_tableViewPlaceholderLabel = nullptr;
    BackupsTableModel* m_tableModel = nullptr;
    bool m_windowLoaded = false;

    bool m_iCloudBackingUp = false;
    bool m_iCloudBeingRestored = false;
    // Shared with the background steps, which may outlive a run's state: both are set by cancelCopying,
    // the copier's one exactly when the Cancel button is disabled.
    std::shared_ptr<std::atomic<bool>> m_canceled = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<bool>> m_cancelCopyRequested = std::make_shared<std::atomic<bool>>(false);
    bool m_calculatingiCloudSize = false;
    std::int32_t m_totalCountOfItemsToCopy = 0;
    std::int32_t m_currentCountOfCopiedItems = 0;
    std::optional<QString> m_mobileDocumentsDirectory;
    BackupStore m_backups;
    std::uint64_t m_totalSizeOfItemsToCopy = 0;
    std::uint64_t m_currentSizeOfCopiedItems = 0;
    std::unique_ptr<SCEvents> m_folderEvents;
    QString m_iCloudBackupDirectory;
    std::function<void()> m_showBackupInfo;
    std::unique_ptr<BackupAlerts> m_alerts;
    std::unique_ptr<QuitAppsRequestWindowController> m_quitAppsController;
};
