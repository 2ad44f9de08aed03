#include "InspectorWindowController.h"

#include "CompareWindowController.h"
#include "engine/BackupSpace.h"
#include "engine/NotCopiedList.h"
#include "Helpers/DirectoryUtility.h"
#include "operations/Background.h"
#include "operations/CopyOperation.h"
#include "platform/ByteCountFormatter.h"
#include "platform/FileManager.h"
#include "platform/Localizer.h"
#include "ui_InspectorWindowController.h"

#include <algorithm>
#include <filesystem>
#include <QFile>
#include <QHeaderView>
#include <QKeyEvent>
#include <QPlainTextEdit>
#include <QScreen>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace {

QString localized(const char* key)
{
    return Localizer::localizedStringForKey(QString::fromLatin1(key));
}

std::optional<struct stat> itemStatus(const QString& path)
{
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return std::nullopt;
    return st;
}

// The backup's top-level folders by their byte names, in listing order; hidden entries, plain files and
// links are left out. Bytes, not QDir: a name that is not UTF-8 would not survive the round trip.
std::vector<std::filesystem::path> containerFolders(const std::filesystem::path& backup)
{
    std::vector<std::filesystem::path> folders;
    std::error_code error;
    std::filesystem::directory_iterator it(backup, error);
    for (const std::filesystem::directory_iterator end{}; !error && it != end; it.increment(error)) {
        const std::filesystem::path& path = it->path();
        if (path.filename().native().starts_with('.'))
            continue;
        std::error_code statusError;
        if (std::filesystem::is_directory(it->symlink_status(statusError)))
            folders.push_back(path);
    }
    return folders;
}

} // namespace

InspectorWindowController::InspectorWindowController(FileManager& fileManager, QWidget* parent)
    : QWidget(parent, Qt::Window)
    , m_fileManager(fileManager)
    , m_ui(std::make_unique<Ui::InspectorWindowController>())
{
    m_ui->setupUi(this);
}

InspectorWindowController::~InspectorWindowController()
{
    stopMeasuringSpace();
}

void InspectorWindowController::showWindow()
{
    const bool firstShow = !m_windowLoaded;
    if (firstShow) {
        m_windowLoaded = true;
        windowDidLoad();
    }
    show();
    // Placed before its frame was known; a window the user has moved since is left where it is.
    if (firstShow)
        moveWithinScreen(pos(), screen());
    raise();
    activateWindow();
}

void InspectorWindowController::windowDidLoad()
{
    m_appContainers.clear();
    connect(m_ui->backupContentTable, &QTableWidget::cellDoubleClicked, this,
            [this] { showAppContainerInFinder(); });
    connect(m_ui->showInFinderBtn, &QPushButton::clicked, this, [this] { showInFinder(); });
    connect(m_ui->compareBtn, &QPushButton::clicked, this, [this] { compareWithiCloudFolder(); });
    setWindowTitle(localized("windowTitleBackupInfo"));
    m_ui->showInFinderBtn->setText(localized("titleShowInFinder"));
    m_ui->compareBtn->setText(localized("btnTitleCompareWithiCloud"));
    m_ui->backupContentLabel->setText(localized("labelBackupContent"));
    m_ui->backupContentTable->setHorizontalHeaderLabels(
        {localized("tableColumnTitleApplication"), localized("tableColumnTitleSize")});
    m_ui->backupContentTable->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_ui->backupContentTable->horizontalHeader()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
}

// Measures every container on this thread, each time: simple, and the window shows what is on disk now.
void InspectorWindowController::showBackupInfo(const BackupRecordRef& backup)
{
    // A comparison of another backup has no place beside this one.
    if (m_compareWindow && backup != m_backupInfo)
        m_compareWindow->close();
    m_backupInfo = backup;
    if (!backup)
        return;
    showWindow();
    const std::optional<QDateTime> date = backup->backupDate();
    m_ui->backupDateLabel->setText(date ? QLocale().toString(date->toLocalTime(), QLocale::ShortFormat)
                                        : QString());
    const QString folder = backup->backupFolder().value_or(QString());
    const std::optional<struct stat> folderStatus = folder.isEmpty() ? std::nullopt : itemStatus(folder);
    if (folderStatus) {
        const auto size = static_cast<std::uint64_t>(backup->backupSize().value_or(0));
        m_ui->backupSizeLabel->setText(ByteCountFormatter::stringFromByteCount(size));
    } else {
        m_ui->backupSizeLabel->setText(localized("alertBackupNotFoundMessage"));
        m_ui->showInFinderBtn->setEnabled(false); // for good, even if the folder comes back
    }
    if (folderStatus && S_ISDIR(folderStatus->st_mode))
        measureSpace(folder);
    else
        stopMeasuringSpace();
    m_ui->backupSpaceLabel->setVisible(folderStatus && S_ISDIR(folderStatus->st_mode));
    m_backupFolderFound = folderStatus && S_ISDIR(folderStatus->st_mode);
    updateCompareBtn();
    m_appContainers.clear();
    const std::uint32_t filesTotal =
        folderStatus && S_ISDIR(folderStatus->st_mode) ? findContainers(folder) : 0;
    reloadTable();
    m_ui->backupContentDescriptionLabel->setText(
        localized("formatStringBackupContent")
            .arg(QString::number(static_cast<quint64>(m_appContainers.size())), QString::number(filesTotal)));
    showNotCopiedItems(folder);
}

void InspectorWindowController::setMobileDocumentsDirectory(const std::optional<QString>& folder)
{
    m_mobileDocumentsDirectory = folder;
    updateCompareBtn();
}

void InspectorWindowController::updateCompareBtn()
{
    m_ui->compareBtn->setEnabled(m_backupFolderFound && m_mobileDocumentsDirectory &&
                                 !m_mobileDocumentsDirectory->isEmpty());
}

// Nothing is read here: the window opens at once and the compare, the not-copied list included, runs on
// the pool.
void InspectorWindowController::compareWithiCloudFolder()
{
    if (!m_ui->compareBtn->isEnabled() || !m_backupInfo || !m_backupInfo->backupFolder())
        return;
    if (!m_compareWindow)
        m_compareWindow = new CompareWindowController(this);
    m_compareWindow->compare(*m_mobileDocumentsDirectory, *m_backupInfo->backupFolder(),
                             m_ui->backupDateLabel->text());
}

void InspectorWindowController::measureSpace(const QString& folder)
{
    stopMeasuringSpace();
    m_ui->backupSpaceLabel->setText(localized("labelMeasuringBackupSpace"));
    auto stop = std::make_shared<std::atomic<bool>>(false);
    m_stopSpaceMeasure = stop;
    const std::uint64_t measure = ++m_spaceMeasure;
    runInBackground(
        this,
        [path = std::filesystem::path(QFile::encodeName(folder).toStdString()), stop] {
            return BackupSpace::measure(path, stop.get());
        },
        [this, measure](const BackupSpace& space) {
            if (measure != m_spaceMeasure)
                return;
            m_ui->backupSpaceLabel->setText(
                localized(space.complete ? "formatStringBackupSpace" : "formatStringBackupSpacePartial")
                    .arg(ByteCountFormatter::stringFromByteCount(space.onItsOwn),
                         ByteCountFormatter::stringFromByteCount(space.freedByDeleting)));
        });
}

void InspectorWindowController::stopMeasuringSpace()
{
    if (m_stopSpaceMeasure)
        m_stopSpaceMeasure->store(true);
    m_stopSpaceMeasure.reset();
    ++m_spaceMeasure;
}

void InspectorWindowController::showNotCopiedItems(const QString& folder)
{
    const std::vector<FsError> items = folder.isEmpty()
                                           ? std::vector<FsError>()
                                           : NotCopiedList::read(QFile::encodeName(folder).toStdString());
    m_ui->notCopiedLabel->setVisible(!items.empty());
    m_ui->notCopiedList->setVisible(!items.empty());
    if (items.empty())
        return;
    m_ui->notCopiedLabel->setText(items.size() == 1
                                      ? localized("labelOneItemNotCopied")
                                      : localized("formatStringItemsNotCopied")
                                            .arg(QLocale().toString(static_cast<qulonglong>(items.size()))));
    m_ui->notCopiedList->setPlainText(CopyOperation::describeItems(items));
}

std::uint32_t InspectorWindowController::findContainers(const QString& folder)
{
    std::uint32_t filesTotal = 0;
    for (const std::filesystem::path& path : containerFolders(QFile::encodeName(folder).toStdString())) {
        const FolderMeasure measure = DirectoryUtility::sizeForDirectoryAtPath(path);
        filesTotal += static_cast<std::uint32_t>(measure.totalFilesCount); // wraps, as the count it sums
        const QString name = QFile::decodeName(path.filename().c_str());
        m_appContainers.append({name.split(QLatin1Char('~')).constLast(), measure.totalSize,
                                QFile::decodeName(path.c_str()), measure.totalFilesCount});
    }
    return filesTotal;
}

void InspectorWindowController::moveWithinScreen(const QPoint& topLeft, const QScreen* screen)
{
    if (!screen) {
        move(topLeft);
        return;
    }
    const QRect area = screen->availableGeometry();
    // The size it will show at: its layout may raise it above the size it was given.
    const QSize frame = frameGeometry().size().expandedTo(minimumSizeHint());
    const int right = std::max(area.left(), area.x() + area.width() - frame.width());
    const int bottom = std::max(area.top(), area.y() + area.height() - frame.height());
    move(std::clamp(topLeft.x(), area.left(), right), std::clamp(topLeft.y(), area.top(), bottom));
}

void InspectorWindowController::keyPressEvent(QKeyEvent* event)
{
    if (event->matches(QKeySequence::Cancel))
        close();
    else
        QWidget::keyPressEvent(event);
}

void InspectorWindowController::reloadTable()
{
    QTableWidget* table = m_ui->backupContentTable;
    table->setRowCount(numberOfRowsInTableView());
    for (int row = 0; row < numberOfRowsInTableView(); ++row) {
        table->setItem(row, 0, new QTableWidgetItem(objectValueForTableColumn(QStringLiteral("app"), row)));
        auto* size = new QTableWidgetItem(objectValueForTableColumn(QStringLiteral("size"), row));
        size->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
        table->setItem(row, 1, size);
    }
}

QString InspectorWindowController::objectValueForTableColumn(const QString& identifier, int row) const
{
    if (row < 0 || row >= m_appContainers.size())
        return {};
    if (identifier == QLatin1String("app"))
        return m_appContainers.at(row).appName;
    if (identifier == QLatin1String("size"))
        return ByteCountFormatter::stringFromByteCount(m_appContainers.at(row).containerSize);
    return {};
}

void InspectorWindowController::showInFinder()
{
    if (m_backupInfo && m_backupInfo->backupFolder())
        m_fileManager.selectFile(*m_backupInfo->backupFolder());
}

void InspectorWindowController::showAppContainerInFinder()
{
    const QModelIndexList rows = m_ui->backupContentTable->selectionModel()->selectedRows();
    const int row = rows.isEmpty() ? -1 : rows.constFirst().row();
    if (row == -1 || row >= m_appContainers.size())
        return;
    m_fileManager.selectFile(m_appContainers.at(row).containerPath);
}

QLabel* InspectorWindowController::backupDateLabel() const
{
    return m_ui->backupDateLabel;
}
QLabel* InspectorWindowController::backupSizeLabel() const
{
    return m_ui->backupSizeLabel;
}
QLabel* InspectorWindowController::backupSpaceLabel() const
{
    return m_ui->backupSpaceLabel;
}
QPushButton* InspectorWindowController::showInFinderBtn() const
{
    return m_ui->showInFinderBtn;
}
QPushButton* InspectorWindowController::compareBtn() const
{
    return m_ui->compareBtn;
}
CompareWindowController* InspectorWindowController::compareWindow() const
{
    return m_compareWindow;
}
QTableWidget* InspectorWindowController::backupContentTable() const
{
    return m_ui->backupContentTable;
}
QLabel* InspectorWindowController::backupContentDescriptionLabel() const
{
    return m_ui->backupContentDescriptionLabel;
}
QLabel* InspectorWindowController::notCopiedLabel() const
{
    return m_ui->notCopiedLabel;
}
QPlainTextEdit* InspectorWindowController::notCopiedList() const
{
    return m_ui->notCopiedList;
}
