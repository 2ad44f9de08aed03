#include "MainWindowController.h"

#include "engine/UnfinishedMark.h"
#include "Helpers/BundleInfo.h"
#include "Helpers/CocoaAdditions.h"
#include "operations/Background.h"
#include "operations/BackupRemoval.h"
#include "operations/Logging.h"
#include "platform/AlertPresenter.h"
#include "platform/Bookmark.h"
#include "platform/ByteCountFormatter.h"
#include "platform/FileManager.h"
#include "platform/FolderChooser.h"
#include "platform/Localizer.h"
#include "platform/PasswordDatabase.h"
#include "platform/RunningApplications.h"
#include "platform/UserDefaults.h"
#include "store/BackupRoot.h"
#include "store/iCloudPrefs.h"
#include "ui/home/HomeFolderAcquisition.h"
#include "ui/main/AppsUsingiCloud.h"
#include "ui/main/BackupAlerts.h"
#include "ui/main/BackupsTableModel.h"
#include "ui/quitapps/QuitAppsRequestWindowController.h"
#include "ui_MainWindowController.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <QApplication>
#include <QCloseEvent>
#include <QDir>
#include <QFileInfo>
#include <QGraphicsDropShadowEffect>
#include <QHeaderView>
#include <QMenu>
#include <QScreen>
#include <QShortcut>
#include <sys/stat.h>
#include <utility>

namespace {

const QString kFrameKey = QStringLiteral("NSWindow Frame MainWindowController");
const char* const kActionProperty = "pelmoraAction";

QString localized(const char* key)
{
    return Localizer::localizedStringForKey(QString::fromLatin1(key));
}

QString labelledValue(const QString& label, const QString& value)
{
    return QStringLiteral("%1:\n%2").arg(label, value);
}

QString shortDateTime(const QDateTime& date)
{
    return QLocale().toString(date.toLocalTime(), QLocale::ShortFormat);
}

} // namespace

MainWindowController::MainWindowController(Services services, QWidget* parent)
    : QMainWindow(parent)
    , m_services(std::move(services))
    , m_ui(std::make_unique<Ui::MainWindowController>())
    , m_operationProgressWindow(std::make_unique<OperationProgressWindow>(this))
    , m_backups(m_services.defaults)
    , m_folderSize(std::make_unique<FolderSizeWatch>(m_services.streamFactory))
    , m_alerts(std::make_unique<BackupAlerts>(m_services.alerts, m_services.defaults))
{
    m_ui->setupUi(this);
    m_tableModel = new BackupsTableModel(
        {.numberOfRows = [this] { return numberOfRowsInTableView(); },
         .objectValue = [this](const QString& column,
                               int row) { return objectValueForTableColumn(column, row); }},
        this);
    m_ui->backupsTable->setModel(m_tableModel);
    connect(m_tableModel, &QAbstractItemModel::modelReset, this, &MainWindowController::commandStatesChanged);
    connect(m_ui->backupsTable->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &MainWindowController::commandStatesChanged);
    m_tableViewPlaceholderLabel = new QLabel(m_ui->backupsTable->viewport());
    m_tableViewPlaceholderLabel->setAlignment(Qt::AlignCenter);
    m_tableViewPlaceholderLabel->setWordWrap(true);
    m_tableViewPlaceholderLabel->setEnabled(false); // drawn in the disabled text colour, like a hint
    m_ui->backupsTable->viewport()->installEventFilter(this);
    connect(m_operationProgressWindow.get(), &OperationProgressWindow::cancelRequested, this,
            [this] { cancelCopying(); });
    connect(m_folderSize.get(), &FolderSizeWatch::folderChanged, this, [this] { setiCloudSize(); });
    connect(m_folderSize.get(), &FolderSizeWatch::measured, this,
            [this](std::uint64_t size) { finishiCloudSizeCalculation(size); });
    m_services.defaults.setWriteFailureObserver(
        [controller = QPointer<MainWindowController>(this)](const UserDefaults::WriteFailure& failure) {
            if (controller)
                controller->preferencesWriteFailed(failure.filePath, failure.reason);
        });
}

MainWindowController::~MainWindowController()
{
    // Nothing at teardown waits for a long walk or copy to run its course.
    m_folderSize->stopMeasuring();
    if (m_backUpRun)
        m_backUpRun->abandon();
    if (m_restoreRun)
        m_restoreRun->abandon();
    if (m_windowLoaded)
        saveWindowFrame();
    // The table outlives this part of the object while the window takes its children down, and its model
    // would ask a controller that is gone for its rows.
    m_ui->backupsTable->setModel(nullptr);
}

void MainWindowController::showWindow()
{
    if (!m_windowLoaded) {
        m_windowLoaded = true;
        windowDidLoad();
    }
    show();
    raise();
    activateWindow();
}

void MainWindowController::windowDidLoad()
{
    setWindowTitle(QString::fromLatin1(BundleInfo::kBundleName));
    restoreWindowFrame();
    // The Library folder is not one of this platform's standard folders, so it is named, not created.
    if (m_services.isSandboxed())
        setMobileDocumentsDirectory(std::nullopt);
    else
        setMobileDocumentsDirectory(QDir::homePath() + QStringLiteral("/Library/Mobile Documents"));
    resetOperationState();
    connectTable();
    m_backups.load();
    sweepUnfinishedBackups();
    m_tableModel->reloadData();
    // No row is current until the user picks one: a focus frame on row 0 would read as a selection.
    m_ui->backupsTable->setCurrentIndex(QModelIndex());
    setLastBackupInfo();
    setiCloudSize();
    styleiCloudCaption();
    localizeTexts();
    startWatchingiCloudFolder();
}

void MainWindowController::restoreWindowFrame()
{
    const std::optional<QByteArray> frame = m_services.defaults.dataForKey(kFrameKey);
    if (frame && restoreGeometry(*frame))
        return;
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        move(screen->availableGeometry().center() - rect().center());
}

void MainWindowController::saveWindowFrame()
{
    m_services.defaults.setDataForKey(saveGeometry(), kFrameKey);
}

void MainWindowController::resetOperationState()
{
    setICloudBeingRestored(false);
    setICloudBackingUp(false);
}

void MainWindowController::setICloudBackingUp(bool running)
{
    if (std::exchange(m_iCloudBackingUp, running) != running)
        emit commandStatesChanged();
}

void MainWindowController::setICloudBeingRestored(bool running)
{
    if (std::exchange(m_iCloudBeingRestored, running) != running)
        emit commandStatesChanged();
}

void MainWindowController::setMobileDocumentsDirectory(const std::optional<QString>& path)
{
    m_mobileDocumentsDirectory = path;
    emit commandStatesChanged();
}

void MainWindowController::connectTable()
{
    CustomTableView* table = m_ui->backupsTable;
    table->setMenuDelegate(this);
    table->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    table->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Interactive);
    table->horizontalHeader()->resizeSection(1, 150);
    connect(table, &QAbstractItemView::doubleClicked, this,
            [this] { performAction(Action::ShowBackupInfo); });
    connect(m_ui->deleteBackupBtn, &QPushButton::clicked, this,
            [this] { performAction(Action::DeleteBackup); });
    connect(m_ui->showInFinderBtn, &QPushButton::clicked, this,
            [this] { performAction(Action::ShowInFinder); });
    connect(m_ui->restoreFromBackupBtn, &QPushButton::clicked, this,
            [this] { performAction(Action::RestoreFromBackup); });
    connect(m_ui->backUpNowBtn, &QPushButton::clicked, this, [this] { performAction(Action::BackUpNow); });
    // The bare Delete key, as the context menu shows it, also works on the table itself.
    auto* deleteKey =
        new QShortcut(QKeySequence(Qt::Key_Delete), table, nullptr, nullptr, Qt::WidgetShortcut);
    connect(deleteKey, &QShortcut::activated, this, [this] {
        if (!m_iCloudBeingRestored)
            performAction(Action::DeleteBackup);
    });
}

void MainWindowController::styleiCloudCaption()
{
    QLabel* caption = m_ui->labelCurrentlyIniCloud;
    QFont font = caption->font();
    font.setBold(true);
    font.setPointSizeF(14.0);
    caption->setFont(font);
    QPalette palette = caption->palette();
    palette.setColor(QPalette::WindowText, Qt::red);
    caption->setPalette(palette);
    caption->setText(localized("labelCurrentlyIniCloud"));
}

void MainWindowController::localizeTexts()
{
    m_ui->allYourBackupsLabel->setText(localized("labelAllYourBackups"));
    m_tableModel->setHeaderTitle(0, localized("tableColumnTitleDate"));
    m_tableModel->setHeaderTitle(1, localized("tableColumnTitleSize"));
    m_ui->deleteBackupBtn->setText(localized("btnTitleDelete"));
    m_ui->showInFinderBtn->setText(localized("titleShowInFinder"));
    m_ui->restoreFromBackupBtn->setText(localized("btnTitleRestore"));
    m_ui->backUpNowBtn->setText(localized("btnTitleBackUp"));
    m_tableViewPlaceholderLabel->setText(localized("placeholderBackupTable"));
    placePlaceholder();
}

void MainWindowController::startWatchingiCloudFolder()
{
    if (m_mobileDocumentsDirectory)
        m_folderSize->watch(*m_mobileDocumentsDirectory);
}

int MainWindowController::numberOfRowsInTableView() const
{
    return static_cast<int>(m_backups.count());
}

QVariant MainWindowController::objectValueForTableColumn(const QString& identifier, int row) const
{
    if (row < 0 || row >= m_backups.count() || !m_backups.at(row))
        return {};
    const BackupRecordRef& record = m_backups.at(row);
    if (identifier == BackupsTableModel::kDateColumn) {
        const std::optional<QDateTime> date = record->backupDate();
        return date ? shortDateTime(*date) : QString();
    }
    if (identifier == BackupsTableModel::kSizeColumn) {
        // Read as an unsigned count of bytes, whatever sign was stored.
        const auto size = static_cast<std::uint64_t>(record->backupSize().value_or(0));
        return ByteCountFormatter::stringFromByteCount(size);
    }
    return {};
}

int MainWindowController::selectedRow() const
{
    const QModelIndexList rows = m_ui->backupsTable->selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.constFirst().row();
}

QMenu* MainWindowController::contextualMenuForTableView(CustomTableView* table, int row)
{
    if (row < 0)
        return nullptr;
    auto* menu = new QMenu(table);
    addMenuItem(menu, QStringLiteral("contextMenuItemTitleGetInfo"), Action::ShowBackupInfo,
                QKeySequence(Qt::CTRL | Qt::Key_I), row);
    addMenuItem(menu, QStringLiteral("titleShowInFinder"), Action::ShowInFinder,
                QKeySequence(Qt::CTRL | Qt::Key_O), row);
    addMenuItem(menu, QStringLiteral("btnTitleRestore"), Action::RestoreFromBackup, QKeySequence(), row);
    addMenuItem(menu, QStringLiteral("btnTitleDelete"), Action::DeleteBackup, QKeySequence(Qt::Key_Delete),
                row);
    connect(menu, &QMenu::aboutToShow, this, [this, menu] {
        for (QAction* item : menu->actions())
            item->setEnabled(validateMenuItem(item));
    });
    return menu;
}

QAction* MainWindowController::addMenuItem(QMenu* menu, const QString& titleKey, Action action,
                                           const QKeySequence& shortcut, int row)
{
    QAction* item = menu->addAction(Localizer::localizedStringForKey(titleKey));
    item->setShortcut(shortcut);
    item->setData(row);
    item->setProperty(kActionProperty, static_cast<int>(action));
    connect(item, &QAction::triggered, this, [this, action] { performAction(action); });
    return item;
}

MainWindowController::Action MainWindowController::actionOf(const QAction* item)
{
    return static_cast<Action>(item->property(kActionProperty).toInt());
}

bool MainWindowController::validateMenuItem(const QAction* item) const
{
    switch (actionOf(item)) {
    case Action::RestoreFromBackup:
        return !m_iCloudBackingUp && !m_iCloudBeingRestored;
    case Action::DeleteBackup:
        return !m_iCloudBeingRestored; // a running backup does not disable it, on purpose
    default:
        return true;
    }
}

void MainWindowController::performAction(Action action)
{
    switch (action) {
    case Action::ShowBackupInfo:
        if (m_showBackupInfo)
            m_showBackupInfo();
        break;
    case Action::BackUpNow:
        backUpNow();
        break;
    case Action::RestoreFromBackup:
        restoreFromBackup();
        break;
    case Action::DeleteBackup:
        deleteBackup();
        break;
    case Action::ShowInFinder:
        showInFinder();
        break;
    }
}

int MainWindowController::calculateCountOfRunningAppsThatUseiCloud() const
{
    return static_cast<int>(
        AppsUsingiCloud::detect(m_services.runningApplications, m_mobileDocumentsDirectory).size());
}

void MainWindowController::setLastBackupInfo()
{
    const QString label = localized("labelLastBackup");
    if (!m_backups.isEmpty()) {
        m_tableViewPlaceholderLabel->hide();
        const std::optional<QDateTime> date = m_backups.last()->backupDate();
        m_ui->lastBackupInfoLabel->setText(labelledValue(label, date ? shortDateTime(*date) : QString()));
        return;
    }
    m_ui->deleteBackupBtn->setEnabled(false);
    m_ui->showInFinderBtn->setEnabled(false);
    m_ui->restoreFromBackupBtn->setEnabled(false);
    m_ui->lastBackupInfoLabel->setText(labelledValue(label, localized("labelLastBackupDateNever")));
    m_tableViewPlaceholderLabel->show();
}

void MainWindowController::setiCloudSize()
{
    if (m_mobileDocumentsDirectory)
        m_folderSize->measure(*m_mobileDocumentsDirectory);
    else if (!m_folderSize->isMeasuring())
        m_ui->labeliCloudSize->setText(QStringLiteral("?"));
}

void MainWindowController::finishiCloudSizeCalculation(std::uint64_t totalSize)
{
    m_ui->labeliCloudSize->setText(ByteCountFormatter::stringFromByteCount(totalSize));
    restyleSizeLabel(m_ui->labelCurrentlyIniCloud);
    restyleSizeLabel(m_ui->labeliCloudSize);
    emit iCloudSizeChanged();
}

void MainWindowController::restyleSizeLabel(QLabel* label)
{
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, Qt::white);
    label->setPalette(palette);
    label->setAlignment(Qt::AlignCenter);
    if (!label->graphicsEffect()) {
        auto* shadow = new QGraphicsDropShadowEffect(label);
        shadow->setBlurRadius(0);
        shadow->setOffset(0, 1); // one pixel below: the screen's y axis points down here
        shadow->setColor(QColor(69, 69, 69));
        label->setGraphicsEffect(shadow);
    }
}

void MainWindowController::backUpNow()
{
    // One run at a time: two would share a folder name and leave one of their folders in no list.
    if (m_backUpRun && !m_backUpRun->hasEnded())
        return;
    if (!m_services.homeDirectory() && !askForHomeDirectory())
        return;
    const QFileInfo iCloudFolder(m_mobileDocumentsDirectory.value_or(QString()));
    if (!m_mobileDocumentsDirectory || !iCloudFolder.isDir()) {
        runNotAvailableiCloudAlert();
        return;
    }
    if (!QFileInfo(iCloudFolder.filePath() + QStringLiteral("/com~apple~CloudDocs")).isDir()) {
        m_alerts->runiCloudDriveRequiredAlert();
        return;
    }
    setICloudBackingUp(true);
    if (calculateCountOfRunningAppsThatUseiCloud() >= 1) {
        showQuitAppsRequest(QuitAppsRequestWindowController::kBackUpTag, "windowTitleCloseAppsBeforeBackUp",
                            "btnTitleBackUpNow");
        return; // still marked as backing up while the request is open
    }
    beginBackUp();
}

// A sandboxed start without a stored bookmark: the user picks the home folder now.
bool MainWindowController::askForHomeDirectory()
{
    const std::optional<QString> chosen = m_services.folderChooser.chooseFolder(localized("openPanelTitle"));
    const std::optional<std::string> realHome = m_services.passwords.realHomeDirectory();
    if (!chosen || !realHome || *chosen != QFile::decodeName(realHome->c_str())) {
        m_alerts->runBadHomeDirectoryAlert();
        return false;
    }
    m_services.setHomeDirectory(*chosen);
    const std::optional<std::string> bookmark = Bookmark::create(QFile::encodeName(*chosen).toStdString());
    if (bookmark) {
        m_services.defaults.setDataForKey(QByteArray::fromStdString(*bookmark),
                                          iCloudPrefs::kHomeDirBookmarkDataKey);
        useHomeDirectory(*chosen);
    }
    return true; // without a bookmark the next check finds no iCloud folder and says so
}

void MainWindowController::useHomeDirectory(const QString& home)
{
    setMobileDocumentsDirectory(HomeFolderAcquisition::mobileDocumentsDirectory(home));
    m_folderSize->watch(*m_mobileDocumentsDirectory);
    setiCloudSize();
}

void MainWindowController::showQuitAppsRequest(int tag, const char* windowTitleKey,
                                               const char* buttonTitleKey)
{
    if (!m_quitAppsController)
        m_quitAppsController = makeQuitAppsRequest();
    QuitAppsRequestWindowController& request = *m_quitAppsController;
    request.setMobileDocumentsDirectory(m_mobileDocumentsDirectory);
    request.showWindow();
    request.setWindowTitle(localized(windowTitleKey));
    const QString buttonTitle = localized(buttonTitleKey);
    request.backUpNowOrRestoreBtn()->setText(buttonTitle);
    request.cancelBtn()->setText(Localizer::cancelButtonTitle());
    request.infoLabel()->setText(localized("formatStringCloseApps").arg(Localizer::plainTitle(buttonTitle)));
    QuitAppsRequestWindowController::setTag(request.backUpNowOrRestoreBtn(), tag);
    request.reloadTable();
    request.scheduleCheckAppsStateTimer();
}

std::unique_ptr<QuitAppsRequestWindowController> MainWindowController::makeQuitAppsRequest()
{
    auto request = std::make_unique<QuitAppsRequestWindowController>(m_services.runningApplications,
                                                                     m_services.quitAppsCheckInterval, this);
    connect(request.get(), &QuitAppsRequestWindowController::operationMayStart, this, [this](int tag) {
        if (tag == QuitAppsRequestWindowController::kRestoreTag)
            performAction(Action::RestoreFromBackup);
        else
            backUpNow();
    });
    connect(request.get(), &QuitAppsRequestWindowController::operationGivenUp, this, [this](int tag) {
        if (tag == QuitAppsRequestWindowController::kRestoreTag)
            setICloudBeingRestored(false);
        else
            setICloudBackingUp(false);
    });
    return request;
}

void MainWindowController::beginBackUp()
{
    const QDateTime start = m_services.now ? m_services.now() : QDateTime::currentDateTime();
    m_iCloudBackupDirectory = BackupRoot::folderPath(start);
    m_backUpRun =
        std::make_unique<BackupOperation>(QFile::encodeName(*m_mobileDocumentsDirectory).toStdString(), start,
                                          m_iCloudBackupDirectory, m_services.copier);
    if (const BackupRecordRef previous = m_backups.last(); previous && previous->backupFolder())
        m_backUpRun->shareUnchangedFilesWith(QFile::encodeName(*previous->backupFolder()).toStdString());
    m_lastRun = m_backUpRun.get();
    connectRun(*m_backUpRun, "operationCopyingDataFromiCloud");
    connect(m_backUpRun.get(), &CopyOperation::ended, this, [this] { finishBackUp(); });
    showProgressWindow("windowTitleOperationBackUp", "operationPreparingToCopyItems", this);
    setCopyButtonsEnabled(false);
    m_backUpRun->start();
}

void MainWindowController::showProgressWindow(const char* titleKey, const char* infoKey,
                                              const QWidget* centerOver)
{
    m_operationProgressWindow->start(localized(titleKey), localized(infoKey), centerOver);
}

void MainWindowController::setCopyButtonsEnabled(bool enabled)
{
    m_ui->backUpNowBtn->setEnabled(enabled);
    m_ui->restoreFromBackupBtn->setEnabled(enabled);
}

void MainWindowController::connectRun(CopyOperation& run, const char* copyingKey)
{
    connect(&run, &CopyOperation::progressChanged, this, [this] { showCopyProgress(); });
    connect(&run, &CopyOperation::copyingStarted, this, [this, copyingKey] {
        showCopyProgress();
        m_operationProgressWindow->showCopying(localized(copyingKey));
    });
}

void MainWindowController::showCopyProgress()
{
    m_operationProgressWindow->showProgress(currentCountOfCopiedItems(), totalCountOfItemsToCopy(),
                                            currentSizeOfCopiedItems(), totalSizeOfItemsToCopy());
}

void MainWindowController::finishBackUp()
{
    const BackupOperation& run = *m_backUpRun;
    m_operationProgressWindow->hide();
    setCopyButtonsEnabled(true);
    switch (run.ending()) {
    case BackupOperation::Ending::Copied:
        recordBackUp(run);
        break;
    case BackupOperation::Ending::NotEnoughSpace:
        runNotEnoughDiskSpaceAlert(); // still marked as backing up, so it names the backup
        break;
    case BackupOperation::Ending::Failed:
        runBackupNotMadeAlert(run);
        break;
    case BackupOperation::Ending::Running:
    case BackupOperation::Ending::CanceledCounting:
    case BackupOperation::Ending::Canceled:
        break;
    }
    setICloudBackingUp(false);
    emit backUpFinished();
}

// The mark comes off only once the record is on disk: a crash before that leaves a folder that no
// stored record names, which the next launch removes.
void MainWindowController::recordBackUp(const BackupOperation& run)
{
    const bool saved = m_backups.append(BackupRecord::make(
        run.startInstant(), run.backupFolder(), static_cast<qint64>(run.totalSizeOfItemsToCopy())));
    if (run.createdFolder())
        m_unsavedRecordFolders << run.backupFolder();
    if (saved) {
        for (const QString& folder : std::as_const(m_unsavedRecordFolders))
            UnfinishedMark::clear(QFile::encodeName(folder).toStdString());
        m_unsavedRecordFolders.clear();
    }
    m_tableModel->reloadData();
    m_ui->restoreFromBackupBtn->setEnabled(true);
    m_ui->deleteBackupBtn->setEnabled(true);
    m_ui->showInFinderBtn->setEnabled(true);
    setLastBackupInfo();
    if (!run.notCopied().empty())
        runItemsNotCopiedAlert(run.notCopied());
}

bool MainWindowController::isRecorded(const QString& folder) const
{
    const QList<BackupRecordRef>& records = m_backups.records();
    return std::any_of(records.begin(), records.end(), [&folder](const BackupRecordRef& record) {
        return record && record->backupFolder() == folder;
    });
}

// A marked folder that no record names was left by a run that crashed or was killed. Only the marks seen
// now are handled, so a backup started meanwhile is never touched; the removal runs off this thread.
void MainWindowController::sweepUnfinishedBackups()
{
    std::vector<std::pair<std::filesystem::path, bool>> marked;
    for (std::filesystem::path& folder :
         UnfinishedMark::markedFolders(QFile::encodeName(BackupRoot::path()).toStdString())) {
        const bool recorded = isRecorded(QFile::decodeName(folder.c_str()));
        marked.emplace_back(std::move(folder), recorded);
    }
    if (marked.empty())
        return;
    runInBackground([marked = std::move(marked)] {
        for (const auto& [folder, recorded] : marked) {
            if (const std::optional<FsError> failed = UnfinishedMark::sweep(folder, recorded))
                qCInfo(lcBackup) << "unfinished backup folder not removed, tried again next launch:"
                                 << failed->describe().c_str();
        }
    });
}

void MainWindowController::restoreFromBackup()
{
    QString backupFolder;
    if (!checkRestorePreconditions(backupFolder))
        return;
    // Set before the question, so that it also covers the wait for applications to quit.
    setICloudBeingRestored(true);
    if (calculateCountOfRunningAppsThatUseiCloud() >= 1) {
        showQuitAppsRequest(QuitAppsRequestWindowController::kRestoreTag, "windowTitleCloseAppsBeforeRestore",
                            "btnTitleRestore");
        return;
    }
    if (m_alerts->runRestoreConfirmationDlg() != AlertResponse::kFirstButton) {
        setICloudBeingRestored(false);
        return;
    }
    beginRestore(backupFolder);
}

bool MainWindowController::checkRestorePreconditions(QString& backupFolder)
{
    const int row = selectedRow();
    if (row == -1) {
        m_alerts->runNoBackupSelectedAlert();
        return false;
    }
    const BackupRecordRef record = row < m_backups.count() ? m_backups.at(row) : nullptr;
    backupFolder = record ? record->backupFolder().value_or(QString()) : QString();
    if (backupFolder.isEmpty() || !QFileInfo(backupFolder).isDir()) {
        m_alerts->runBackupNotFoundAlert();
        return false;
    }
    if (!m_mobileDocumentsDirectory || !QFileInfo(*m_mobileDocumentsDirectory).isDir()) {
        runNotAvailableiCloudAlert();
        return false;
    }
    if (!QFileInfo(*m_mobileDocumentsDirectory + QStringLiteral("/com~apple~CloudDocs")).isDir()) {
        m_alerts->runiCloudDriveRequiredAlert();
        return false;
    }
    return true;
}

void MainWindowController::beginRestore(const QString& backupFolder)
{
    m_iCloudBackupDirectory = backupFolder;
    m_restoreRun = std::make_unique<RestoreOperation>(
        QFile::encodeName(backupFolder).toStdString(),
        QFile::encodeName(*m_mobileDocumentsDirectory).toStdString(),
        QFile::encodeName(BackupRoot::applicationDataFolder()).toStdString(), m_services.copier);
    m_lastRun = m_restoreRun.get();
    connectRun(*m_restoreRun, "operationRestoringDataToiCloud");
    connect(m_restoreRun.get(), &CopyOperation::ended, this, [this] { finishRestore(); });
    setCopyButtonsEnabled(false);
    // Centred on the key window; without one, on the main window rather than half off the screen.
    const QWidget* keyWindow = QApplication::activeWindow();
    showProgressWindow("windowTitleOperationRestore", "operationPreparingToCopyItems",
                       keyWindow ? keyWindow : this);
    m_restoreRun->start();
}

// A restore that did everything ends in silence, cancelled or not; one that left something undone says
// what, with the items under Details.
void MainWindowController::finishRestore()
{
    const RestoreOperation& run = *m_restoreRun;
    m_operationProgressWindow->hide();
    setCopyButtonsEnabled(true);
    if (run.ending() == RestoreOperation::Ending::BackupUnreadable)
        m_alerts->runBackupNotFoundAlert();
    else if (run.ending() == RestoreOperation::Ending::NotEnoughSpace)
        runNotEnoughDiskSpaceAlert(); // no backup runs, so it names the restore
    else if (!run.didEverything())
        m_alerts->runRestoreIncompleteAlert(restoreSummary(run), restoreDetails(run));
    setICloudBeingRestored(false);
    emit restoreFinished();
}

QString MainWindowController::restoreSummary(const RestoreOperation& run)
{
    QStringList lines;
    if (run.ending() == RestoreOperation::Ending::DiskFull)
        lines << localized("alertRestoreDiskFullInfo");
    for (const auto& [key, items] : restoreGroups(run))
        if (!items->empty())
            lines << localized(key).arg(QLocale().toString(static_cast<qulonglong>(items->size())));
    lines << localized("alertRestoreIncompleteInfo");
    return lines.join(QLatin1Char('\n'));
}

QString MainWindowController::restoreDetails(const RestoreOperation& run)
{
    QStringList sections;
    for (const auto& [key, items] : restoreGroups(run))
        if (!items->empty())
            sections << localized(key).arg(QLocale().toString(static_cast<qulonglong>(items->size()))) +
                            QLatin1Char('\n') + CopyOperation::describeItems(*items);
    return sections.join(QStringLiteral("\n\n"));
}

std::vector<std::pair<const char*, const std::vector<FsError>*>>
MainWindowController::restoreGroups(const RestoreOperation& run)
{
    return {{"formatStringRestoreNotCopied", &run.notCopied()},
            {"formatStringRestoreNotRemoved", &run.pruning().notRemoved},
            {"formatStringRestoreKept", &run.pruning().kept},
            {"formatStringRestoreRemovedForGood", &run.pruning().removedForGood}};
}

void MainWindowController::deleteBackup()
{
    const int row = selectedRow();
    if (row == -1)
        return;
    const bool confirmed = !iCloudPrefs::dontAskAgainRemoveBackup(m_services.defaults) &&
                           m_alerts->runRemoveBackupConfirmationDlg() == AlertResponse::kFirstButton;
    // Read again on purpose: No with "don't ask again" ticked stored YES, and so removes the backup.
    if (!confirmed && !iCloudPrefs::dontAskAgainRemoveBackup(m_services.defaults))
        return;
    const QString folder = m_backups.at(row)->backupFolder().value_or(QString());
    if (!removeBackupFolder(folder))
        return;
    m_backups.removeAt(row);
    m_tableModel->reloadData();
    setLastBackupInfo();
}

// False when the record must stay: its folder is not one of ours to remove, or is still partly there. A
// folder already gone is fine, and its record goes quietly.
bool MainWindowController::removeBackupFolder(const QString& folder)
{
    const BackupRemoval::Outcome removal = BackupRemoval::removeFolder(folder);
    if (removal.result == BackupRemoval::Result::NotABackupFolder)
        m_alerts->runBackupNotFoundAlert();
    else if (removal.result == BackupRemoval::Result::PartlyLeft)
        m_alerts->runBackupNotRemovedAlert(QFile::decodeName(removal.failure.path.c_str()),
                                           QString::fromLocal8Bit(std::strerror(removal.failure.code)));
    return removal.recordMayGo();
}

void MainWindowController::showInFinder()
{
    const int row = selectedRow();
    if (row == -1 || row >= m_backups.count())
        return;
    const QString folder = m_backups.at(row)->backupFolder().value_or(QString());
    struct stat st {};
    if (!folder.isEmpty() && ::lstat(QFile::encodeName(folder).constData(), &st) == 0)
        m_services.fileManager.selectFile(folder);
    else
        m_alerts->runBackupNotFoundAlert();
}

void MainWindowController::cancelCopying()
{
    m_operationProgressWindow->showCanceling();
    if (m_backUpRun && !m_backUpRun->hasEnded())
        m_backUpRun->cancel();
    if (m_restoreRun && !m_restoreRun->hasEnded())
        m_restoreRun->cancel();
}

void MainWindowController::stopForQuit()
{
    cancelCopying();
    m_operationProgressWindow->allowClosing(); // it closes with the program from now on
    m_folderSize->stopMeasuring();
    if (m_backUpRun && !m_backUpRun->hasEnded())
        m_backUpRun->abandonAndRemoveFolder(kQuitWait, isRecorded(m_backUpRun->backupFolder()));
    if (m_restoreRun && !m_restoreRun->hasEnded()) {
        m_restoreRun->abandon();
        if (!m_restoreRun->waitForWorkers(kQuitWait))
            qCInfo(lcRestore) << "quitting while the restore's copy had not stopped after"
                              << kQuitWait.count() << "ms";
        qCInfo(lcRestore) << "quit during a restore: the iCloud folder is left partly restored";
    }
}

void MainWindowController::runNotAvailableiCloudAlert()
{
    m_alerts->runNotAvailableiCloudAlert(isYosemiteRunning());
}

void MainWindowController::runNotEnoughDiskSpaceAlert()
{
    m_alerts->runNotEnoughDiskSpaceAlert(m_iCloudBackingUp);
}

void MainWindowController::runItemsNotCopiedAlert(const std::vector<FsError>& items)
{
    m_alerts->runItemsNotCopiedAlert(static_cast<int>(items.size()), CopyOperation::describeItems(items));
}

void MainWindowController::runBackupNotMadeAlert(const BackupOperation& run)
{
    const FsError& error = run.folderError();
    m_alerts->runBackupNotMadeAlert(QFile::decodeName(error.path.c_str()),
                                    QString::fromLocal8Bit(std::strerror(error.code)));
}

void MainWindowController::preferencesWriteFailed(const QString& file, const QString& reason)
{
    if (std::exchange(m_toldAboutPreferences, true))
        return;
    // Told from the main loop, not from inside whatever was writing.
    QMetaObject::invokeMethod(
        this, [this, file, reason] { m_alerts->runPreferencesNotSavedAlert(file, reason); },
        Qt::QueuedConnection);
}

bool MainWindowController::isYosemiteRunning(double libraryVersion)
{
    return std::floor(libraryVersion) > 1265.0;
}

void MainWindowController::placePlaceholder()
{
    QWidget* viewport = m_ui->backupsTable->viewport();
    m_tableViewPlaceholderLabel->setGeometry(viewport->rect().adjusted(24, 0, -24, 0));
}

bool MainWindowController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_ui->backupsTable->viewport() && event->type() == QEvent::Resize)
        placePlaceholder();
    return QMainWindow::eventFilter(watched, event);
}

void MainWindowController::closeEvent(QCloseEvent* event)
{
    saveWindowFrame();
    QMainWindow::closeEvent(event);
}

QLabel* MainWindowController::labeliCloudSize() const
{
    return m_ui->labeliCloudSize;
}
QLabel* MainWindowController::lastBackupInfoLabel() const
{
    return m_ui->lastBackupInfoLabel;
}
CustomTableView* MainWindowController::backupsTable() const
{
    return m_ui->backupsTable;
}
QPushButton* MainWindowController::deleteBackupBtn() const
{
    return m_ui->deleteBackupBtn;
}
QPushButton* MainWindowController::showInFinderBtn() const
{
    return m_ui->showInFinderBtn;
}
QPushButton* MainWindowController::restoreFromBackupBtn() const
{
    return m_ui->restoreFromBackupBtn;
}
QPushButton* MainWindowController::backUpNowBtn() const
{
    return m_ui->backUpNowBtn;
}
