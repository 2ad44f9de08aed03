#include "OperationProgressWindow.h"

#include "platform/ByteCountFormatter.h"
#include "platform/Localizer.h"
#include "ui_OperationProgressWindow.h"

#include <algorithm>
#include <QCloseEvent>
#include <QKeyEvent>

namespace {

QString localized(const char* key)
{
    return Localizer::localizedStringForKey(QString::fromLatin1(key));
}

} // namespace

OperationProgressWindow::OperationProgressWindow(QWidget* parent)
    : QDialog(parent)
    , m_ui(std::make_unique<Ui::OperationProgressWindow>())
{
    m_ui->setupUi(this);
    connect(m_ui->cancelCopyingBtn, &QPushButton::clicked, this, &OperationProgressWindow::cancelRequested);
}

OperationProgressWindow::~OperationProgressWindow() = default;

void OperationProgressWindow::start(const QString& title, const QString& info, const QWidget* over)
{
    setWindowTitle(title);
    m_ui->operationInfoLabel->setText(info);
    m_ui->cancelCopyingBtn->setText(Localizer::cancelButtonTitle());
    m_ui->copyingTotalProgressIndicator->setRange(0, 0); // indeterminate, animating
    m_ui->cancelCopyingBtn->setEnabled(true);
    m_ui->copyCountsLabel->hide(); // shown once there are files to count
    const QRect centre = over ? over->frameGeometry() : QRect();
    const QRect own = frameGeometry();
    move(centre.x() + centre.width() / 2 - own.width() / 2,
         centre.y() + centre.height() / 2 - own.height() / 2);
    show();
    raise();
    activateWindow();
}

void OperationProgressWindow::showCopying(const QString& info)
{
    m_ui->operationInfoLabel->setText(info);
    m_ui->copyCountsLabel->show();
}

void OperationProgressWindow::showProgress(std::int32_t copiedCount, std::int32_t totalCount,
                                           std::uint64_t copiedSize, std::uint64_t totalSize)
{
    constexpr int kSteps = 1000000;
    QProgressBar* bar = m_ui->copyingTotalProgressIndicator;
    bar->setRange(0, kSteps);
    const double fraction =
        totalSize == 0 ? 0.0 : static_cast<double>(copiedSize) / static_cast<double>(totalSize);
    bar->setValue(static_cast<int>(std::min(1.0, fraction) * kSteps));
    const QLocale locale;
    m_ui->copyCountsLabel->setText(localized("formatStringCopyProgress")
                                       .arg(locale.toString(copiedCount), locale.toString(totalCount),
                                            ByteCountFormatter::stringFromByteCount(copiedSize),
                                            ByteCountFormatter::stringFromByteCount(totalSize)));
}

void OperationProgressWindow::showCanceling()
{
    m_ui->cancelCopyingBtn->setEnabled(false);
    m_ui->operationInfoLabel->setText(localized("operationCanceling"));
    m_ui->copyingTotalProgressIndicator->setRange(0, 0);
}

void OperationProgressWindow::keyPressEvent(QKeyEvent* event)
{
    if (event->key() != Qt::Key_Escape || m_closable)
        return QDialog::keyPressEvent(event);
    requestCancel();
}

void OperationProgressWindow::closeEvent(QCloseEvent* event)
{
    if (m_closable)
        return QDialog::closeEvent(event);
    requestCancel();
    event->ignore();
}

void OperationProgressWindow::requestCancel()
{
    if (m_ui->cancelCopyingBtn->isEnabled())
        emit cancelRequested();
}

QLabel* OperationProgressWindow::operationInfoLabel() const
{
    return m_ui->operationInfoLabel;
}
QProgressBar* OperationProgressWindow::copyingTotalProgressIndicator() const
{
    return m_ui->copyingTotalProgressIndicator;
}
QPushButton* OperationProgressWindow::cancelCopyingBtn() const
{
    return m_ui->cancelCopyingBtn;
}
QLabel* OperationProgressWindow::copyCountsLabel() const
{
    return m_ui->copyCountsLabel;
}
