#pragma once

#include <cstdint>
#include <memory>
#include <QDialog>

class QLabel;
class QProgressBar;
class QPushButton;

namespace Ui {
class OperationProgressWindow;
} // namespace Ui

// The window in front of a running backup or restore: what the run is doing, a bar, the counts and
// Cancel. Escape and the close button ask for the cancel, as the button does, instead of hiding the
// window and leaving the work running; once the program is quitting the window may close.
class OperationProgressWindow : public QDialog {
    Q_OBJECT

public:
    explicit OperationProgressWindow(QWidget* parent);
    ~OperationProgressWindow() override;

    // Shown in front, centred over `over`, with a busy bar and Cancel enabled.
    void start(const QString& title, const QString& info, const QWidget* over);
    // The copy has begun: its line, and the counts below the bar.
    void showCopying(const QString& info);
    // The bar counts in bytes, scaled into the range a progress bar holds. It may end below its maximum:
    // skipped and already existing files add nothing.
    void showProgress(std::int32_t copiedCount, std::int32_t totalCount, std::uint64_t copiedSize,
                      std::uint64_t totalSize);
    // The cancel is under way: Cancel greys out and the line says so until the run ends.
    void showCanceling();
    void allowClosing() { m_closable = true; }

    QLabel* operationInfoLabel() const;
    QProgressBar* copyingTotalProgressIndicator() const;
    QPushButton* cancelCopyingBtn() const;
    QLabel* copyCountsLabel() const;

signals:
    void cancelRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void requestCancel();

    std::unique_ptr<Ui::OperationProgressWindow> m_ui;
    bool m_closable = false;
};
