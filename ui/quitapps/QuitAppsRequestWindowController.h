#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <QDialog>
#include <QIcon>
#include <QList>
#include <sys/types.h>

class QPushButton;
class QLabel;
class QTableWidget;
class QTimer;
class RunningApplications;

namespace Ui {
class QuitAppsRequestWindowController;
}

// Lists the running applications that use the iCloud folder and asks the user to quit them. Once a
// second it checks them by process id; when the last one is gone it hides and asks its owner, through
// operationMayStart, to start the pending back up (tag 0) or restore (tag 1) again from the top, though
// never under an alert or another modal window. Cancel, Escape or closing the window gives the
// operation up (operationGivenUp).
class QuitAppsRequestWindowController : public QDialog {
    Q_OBJECT

public:
    struct AppEntry {
        QString appName;
        pid_t pid = 0;
        QIcon icon;
    };
    static constexpr int kBackUpTag = 0;
    static constexpr int kRestoreTag = 1;

    QuitAppsRequestWindowController(RunningApplications& runningApplications,
                                    std::chrono::milliseconds checkInterval, QWidget* parent = nullptr);
    ~QuitAppsRequestWindowController() override;

    // The folder whose users are listed; set before the window is shown.
    void setMobileDocumentsDirectory(const std::optional<QString>& path)
    {
        m_mobileDocumentsDirectory = path;
    }

    void showWindow();
    void detectAppsToQuit();
    void reloadTable();
    void checkAppsStateTimerCallback();
    void backUpNowOrRestore(QPushButton* sender);
    void cancelBtnAction();
    void activateApp(int row);
    // Creates the once-a-second check if there is none, and (re)starts it.
    void scheduleCheckAppsStateTimer();

    int numberOfRowsInTableView() const { return static_cast<int>(m_appsToQuit.size()); }
    QString objectValueForRow(int row) const;
    const QList<AppEntry>& appsToQuit() const { return m_appsToQuit; }
    QTimer* checkAppsStateTimer() const { return m_checkAppsStateTimer.get(); }

    static int tagOf(const QPushButton* button);
    static void setTag(QPushButton* button, int tag);

    QTableWidget* appsToQuitTable() const;
    QPushButton* cancelBtn() const;
    QPushButton* backUpNowOrRestoreBtn() const;
    QLabel* infoLabel() const;

    // Escape, the title bar's close button and close() all end here, as Cancel does.
    void reject() override;

signals:
    void operationMayStart(int tag);
    void operationGivenUp(int tag);

private:
    void windowDidLoad();
    void windowWillClose();
    void showEntries();
    void stopCheckAppsStateTimer();
    void bringThisApplicationToFront();

    RunningApplications& m_runningApplications;
    std::chrono::milliseconds m_checkInterval;
    std::optional<QString> m_mobileDocumentsDirectory;
    std::unique_ptr<Ui::QuitAppsRequestWindowController> m_ui;
    QList<AppEntry> m_appsToQuit;
    std::unique_ptr<QTimer> m_checkAppsStateTimer;
    bool m_windowLoaded = false;
};
