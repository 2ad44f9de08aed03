#pragma once

#include "store/BackupRecord.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <QPointer>
#include <QWidget>

class CompareWindowController;
class FileManager;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QScreen;
class QTableWidget;

namespace Ui {
class InspectorWindowController;
}

// The information window of one backup: its date, its size, and one row per application container with
// the container's size, measured afresh from the backup folder each time the window is filled. What the
// backup takes on disk on its own and what deleting it would free (backups share unchanged files) is
// measured on the pool meanwhile and shown when it is known. From here the backup can be compared with the
// iCloud folder as it is now, in a window of its own.
class InspectorWindowController : public QWidget {
    Q_OBJECT

public:
    struct ContainerEntry {
        QString appName; // the folder name after its last "~"
        std::uint64_t containerSize = 0;
        QString containerPath;
        std::int32_t containerFilesCount = 0;
    };

    explicit InspectorWindowController(FileManager& fileManager, QWidget* parent = nullptr);
    ~InspectorWindowController() override;

    void showBackupInfo(const BackupRecordRef& backup);
    // The live iCloud folder the backup is compared with; without one there is nothing to compare with.
    void setMobileDocumentsDirectory(const std::optional<QString>& folder);
    const std::optional<QString>& mobileDocumentsDirectory() const { return m_mobileDocumentsDirectory; }
    void showInFinder();
    // Opens the compare window (one per info window) and compares afresh.
    void compareWithiCloudFolder();
    void showAppContainerInFinder();
    // Moves the window's top-left corner near `topLeft`, but never so that any of it leaves the screen's
    // available area (a window half off the screen cannot be reached by the mouse).
    void moveWithinScreen(const QPoint& topLeft, const QScreen* screen);

    const BackupRecordRef& backupInfo() const { return m_backupInfo; }
    const QList<ContainerEntry>& appContainers() const { return m_appContainers; }
    int numberOfRowsInTableView() const { return static_cast<int>(m_appContainers.size()); }
    QString objectValueForTableColumn(const QString& identifier, int row) const;

    QLabel* backupDateLabel() const;
    QLabel* backupSizeLabel() const;
    // "Measuring…" until the space on disk is known.
    QLabel* backupSpaceLabel() const;
    QPushButton* showInFinderBtn() const;
    // Enabled while the iCloud folder is known and the backup folder was found.
    QPushButton* compareBtn() const;
    // Null until the first compare.
    CompareWindowController* compareWindow() const;
    QTableWidget* backupContentTable() const;
    QLabel* backupContentDescriptionLabel() const;
    // Hidden for a backup that holds everything it was asked to.
    QLabel* notCopiedLabel() const;
    QPlainTextEdit* notCopiedList() const;

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void windowDidLoad();
    void showWindow();
    std::uint32_t findContainers(const QString& folder);
    void reloadTable();
    void showNotCopiedItems(const QString& folder);
    void measureSpace(const QString& folder);
    void stopMeasuringSpace();
    void updateCompareBtn();

    FileManager& m_fileManager;
    std::unique_ptr<Ui::InspectorWindowController> m_ui;
    BackupRecordRef m_backupInfo;
    QList<ContainerEntry> m_appContainers;
    bool m_windowLoaded = false;
    // The measure under way; a result that comes back after another was started is dropped.
    std::shared_ptr<std::atomic<bool>> m_stopSpaceMeasure;
    std::uint64_t m_spaceMeasure = 0;
    std::optional<QString> m_mobileDocumentsDirectory;
    bool m_backupFolderFound = false;
    QPointer<CompareWindowController> m_compareWindow;
};
