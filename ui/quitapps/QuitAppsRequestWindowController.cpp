#include "QuitAppsRequestWindowController.h"

#include "platform/RunningApplications.h"
#include "ui/main/AppsUsingiCloud.h"
#include "ui_QuitAppsRequestWindowController.h"

#include <QApplication>
#include <QTimer>

namespace {
const char* const kTagProperty = "pelmoraTag";
}

QuitAppsRequestWindowController::QuitAppsRequestWindowController(RunningApplications& runningApplications,
                                                                 std::chrono::milliseconds checkInterval,
                                                                 QWidget* parent)
    : QDialog(parent)
    , m_runningApplications(runningApplications)
    , m_checkInterval(checkInterval)
    , m_ui(std::make_unique<Ui::QuitAppsRequestWindowController>())
{
    m_ui->setupUi(this);
}

QuitAppsRequestWindowController::~QuitAppsRequestWindowController() = default;

void QuitAppsRequestWindowController::showWindow()
{
    if (!m_windowLoaded) {
        m_windowLoaded = true;
        windowDidLoad();
    }
    show();
    raise();
    activateWindow();
}

void QuitAppsRequestWindowController::windowDidLoad()
{
    m_appsToQuit.clear();
    reloadTable();
    connect(m_ui->appsToQuitTable, &QTableWidget::cellDoubleClicked, this,
            [this](int row) { activateApp(row); });
    connect(m_ui->cancelBtn, &QPushButton::clicked, this, [this] { cancelBtnAction(); });
    connect(m_ui->backUpNowOrRestoreBtn, &QPushButton::clicked, this,
            [this] { backUpNowOrRestore(m_ui->backUpNowOrRestoreBtn); });
}

void QuitAppsRequestWindowController::detectAppsToQuit()
{
    m_appsToQuit.clear();
    const QList<RunningApplication> found =
        AppsUsingiCloud::detect(m_runningApplications, m_mobileDocumentsDirectory);
    for (const RunningApplication& application : found)
        m_appsToQuit.append(
            AppEntry{application.localizedName, application.processIdentifier, application.icon});
}

void QuitAppsRequestWindowController::reloadTable()
{
    detectAppsToQuit();
    showEntries();
}

void QuitAppsRequestWindowController::showEntries()
{
    QTableWidget* table = m_ui->appsToQuitTable;
    table->setRowCount(numberOfRowsInTableView());
    for (int row = 0; row < numberOfRowsInTableView(); ++row)
        table->setItem(row, 0, new QTableWidgetItem(m_appsToQuit.at(row).icon, objectValueForRow(row)));
}

QString QuitAppsRequestWindowController::objectValueForRow(int row) const
{
    return row >= 0 && row < m_appsToQuit.size() ? m_appsToQuit.at(row).appName : QString();
}

void QuitAppsRequestWindowController::scheduleCheckAppsStateTimer()
{
    if (!m_checkAppsStateTimer) {
        m_checkAppsStateTimer = std::make_unique<QTimer>();
        m_checkAppsStateTimer->setInterval(m_checkInterval);
        connect(m_checkAppsStateTimer.get(), &QTimer::timeout, this,
                [this] { checkAppsStateTimerCallback(); });
    }
    m_checkAppsStateTimer->start();
}

// Only the listed applications are checked; one started meanwhile is found by the button or a new request.
// Under an alert or another modal window the tick is skipped whole: starting the operation would put its
// own windows and questions in the middle of that one, and raising windows could bury it. A later tick
// finds the applications gone all the same.
void QuitAppsRequestWindowController::checkAppsStateTimerCallback()
{
    if (QWidget* modal = QApplication::activeModalWidget(); modal && modal != this)
        return;
    QList<pid_t> gone;
    for (const AppEntry& entry : m_appsToQuit) {
        if (!m_runningApplications.runningApplicationWithProcessIdentifier(entry.pid)) {
            gone << entry.pid;
            bringThisApplicationToFront();
        }
    }
    if (!gone.isEmpty()) {
        m_appsToQuit.removeIf([&](const AppEntry& entry) { return gone.contains(entry.pid); });
        showEntries();
    }
    if (m_appsToQuit.isEmpty())
        backUpNowOrRestore(m_ui->backUpNowOrRestoreBtn);
}

void QuitAppsRequestWindowController::backUpNowOrRestore(QPushButton* sender)
{
    reloadTable();
    if (!m_appsToQuit.isEmpty()) {
        raise();
        activateWindow();
        return;
    }
    stopCheckAppsStateTimer();
    hide();
    bringThisApplicationToFront();
    // The busy flag stays as it is: the command sets it again itself.
    emit operationMayStart(tagOf(sender));
}

void QuitAppsRequestWindowController::cancelBtnAction()
{
    reject();
}

// QDialog sends Escape straight here without a close event, and turns a close event into this call only
// while the window is shown: closing it once the operation has started leaves that operation's flag alone.
void QuitAppsRequestWindowController::reject()
{
    windowWillClose();
    QDialog::reject();
}

void QuitAppsRequestWindowController::windowWillClose()
{
    stopCheckAppsStateTimer();
    emit operationGivenUp(tagOf(m_ui->backUpNowOrRestoreBtn));
}

void QuitAppsRequestWindowController::stopCheckAppsStateTimer()
{
    if (m_checkAppsStateTimer) {
        m_checkAppsStateTimer->stop();
        m_checkAppsStateTimer.reset();
    }
}

// Asked twice in a row, on purpose: some desktops honour only the second request.
void QuitAppsRequestWindowController::activateApp(int row)
{
    if (row == -1 || row >= m_appsToQuit.size())
        return;
    const pid_t pid = m_appsToQuit.at(row).pid;
    if (!m_runningApplications.runningApplicationWithProcessIdentifier(pid))
        return;
    m_runningApplications.activate(pid);
    m_runningApplications.activate(pid);
}

void QuitAppsRequestWindowController::bringThisApplicationToFront()
{
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window->isVisible())
            window->raise();
    }
    if (QWidget* owner = parentWidget())
        owner->activateWindow();
}

int QuitAppsRequestWindowController::tagOf(const QPushButton* button)
{
    return button ? button->property(kTagProperty).toInt() : kBackUpTag;
}

void QuitAppsRequestWindowController::setTag(QPushButton* button, int tag)
{
    button->setProperty(kTagProperty, tag);
}

QTableWidget* QuitAppsRequestWindowController::appsToQuitTable() const
{
    return m_ui->appsToQuitTable;
}
QPushButton* QuitAppsRequestWindowController::cancelBtn() const
{
    return m_ui->cancelBtn;
}
QPushButton* QuitAppsRequestWindowController::backUpNowOrRestoreBtn() const
{
    return m_ui->backUpNowOrRestoreBtn;
}
QLabel* QuitAppsRequestWindowController::infoLabel() const
{
    return m_ui->infoLabel;
}
