#include "CompareWindowController.h"

#include "engine/NotCopiedList.h"
#include "engine/RestorePreparation.h"
#include "Helpers/DirectoryUtility.h"
#include "operations/Background.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Localizer.h"
#include "ui_CompareWindowController.h"

#include <filesystem>
#include <QCloseEvent>
#include <QFile>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLocale>
#include <QTreeWidget>
#include <utility>
#include <vector>

namespace {

QString localized(const char* key)
{
    return Localizer::localizedStringForKey(QString::fromLatin1(key));
}

std::filesystem::path bytePath(const QString& path)
{
    return QFile::encodeName(path).toStdString();
}

// Runs on the pool. The engine gives a folder no size, yet a folder that would go takes everything in it
// along: it is measured in the live folder, so the group's total tells what a restore would move.
Comparison compareOffMainThread(const std::filesystem::path& live, const std::filesystem::path& backup,
                                const std::atomic<bool>& stop)
{
    std::vector<std::filesystem::path> neverPrune;
    for (const FsError& item : NotCopiedList::read(backup))
        neverPrune.push_back(item.path);
    Comparison comparison = RestorePreparation::compare(live, backup, stop, neverPrune);
    for (std::vector<ComparedItem>* group : {&comparison.added, &comparison.changed}) {
        for (ComparedItem& item : *group) {
            if (item.isFolder && !stop.load())
                item.size =
                    DirectoryUtility::sizeForDirectoryAtPath(live / item.path, nullptr, &stop).totalSize;
        }
    }
    return comparison;
}

QString itemCount(std::size_t count)
{
    return count == 1
               ? localized("labelOneItem")
               : localized("formatStringItems").arg(QLocale().toString(static_cast<qulonglong>(count)));
}

} // namespace

CompareWindowController::CompareWindowController(QWidget* parent)
    : QWidget(parent, Qt::Window)
    , m_ui(std::make_unique<Ui::CompareWindowController>())
{
    m_ui->setupUi(this);
    m_ui->itemTree->setHeaderLabels({localized("tableColumnTitleItem"), localized("tableColumnTitleSize")});
    m_ui->itemTree->header()->setStretchLastSection(false);
    m_ui->itemTree->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_ui->itemTree->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
}

CompareWindowController::~CompareWindowController()
{
    stopComparing();
}

void CompareWindowController::compare(const QString& liveFolder, const QString& backupFolder,
                                      const QString& backupName)
{
    stopComparing();
    auto stop = std::make_shared<std::atomic<bool>>(false);
    m_stop = stop;
    const std::uint64_t run = m_compare;
    setWindowTitle(localized("formatStringCompareWindowTitle").arg(backupName));
    m_ui->statusLabel->setText(localized("labelComparing"));
    m_ui->comparingIndicator->show();
    m_ui->itemTree->clear();
    m_ui->itemTree->hide();
    show();
    raise();
    activateWindow();
    runInBackground(
        this,
        [live = bytePath(liveFolder), backup = bytePath(backupFolder), stop] {
            return compareOffMainThread(live, backup, *stop);
        },
        [this, run](const Comparison& comparison) {
            if (run != m_compare)
                return;
            m_stop.reset();
            showComparison(comparison);
        });
}

void CompareWindowController::stopComparing()
{
    if (m_stop)
        m_stop->store(true);
    m_stop.reset();
    ++m_compare;
}

void CompareWindowController::showComparison(const Comparison& comparison)
{
    m_ui->comparingIndicator->hide();
    if (!comparison.backupReadable) {
        m_ui->statusLabel->setText(localized("labelCompareBackupUnreadable"));
        return;
    }
    const bool same = comparison.added.empty() && comparison.changed.empty() && comparison.removed.empty();
    m_ui->statusLabel->setText(localized(same ? "labelCompareNoDifferences" : "labelCompareDone"));
    QTreeWidget* tree = m_ui->itemTree;
    const std::pair<const char*, const std::vector<ComparedItem>*> groups[] = {
        {"formatStringCompareAdded", &comparison.added},
        {"formatStringCompareChanged", &comparison.changed},
        {"formatStringCompareRemoved", &comparison.removed}};
    for (const auto& [format, items] : groups) {
        std::uint64_t total = 0;
        auto* heading = new QTreeWidgetItem(tree);
        for (const ComparedItem& item : *items) {
            total += item.size;
            // Raw bytes on disk: decoded the way the rest of the program shows names.
            const QString path = QFile::decodeName(item.path.c_str());
            auto* row = new QTreeWidgetItem(heading, {item.isFolder ? path + QLatin1Char('/') : path,
                                                      ByteCountFormatter::stringFromByteCount(item.size)});
            row->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        }
        heading->setText(0, localized(format).arg(itemCount(items->size()),
                                                  ByteCountFormatter::stringFromByteCount(total)));
        QFont bold = heading->font(0);
        bold.setBold(true);
        heading->setFont(0, bold);
        heading->setFirstColumnSpanned(true);
        heading->setFlags(Qt::ItemIsEnabled);
        heading->setExpanded(true);
    }
    tree->show();
}

void CompareWindowController::keyPressEvent(QKeyEvent* event)
{
    if (event->matches(QKeySequence::Cancel))
        close();
    else
        QWidget::keyPressEvent(event);
}

void CompareWindowController::closeEvent(QCloseEvent* event)
{
    stopComparing();
    QWidget::closeEvent(event);
}

QLabel* CompareWindowController::statusLabel() const
{
    return m_ui->statusLabel;
}
QProgressBar* CompareWindowController::comparingIndicator() const
{
    return m_ui->comparingIndicator;
}
QTreeWidget* CompareWindowController::itemTree() const
{
    return m_ui->itemTree;
}
