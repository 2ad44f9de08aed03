#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <QWidget>

class QLabel;
class QProgressBar;
class QTreeWidget;
struct Comparison;

namespace Ui {
class CompareWindowController;
}

// What restoring a backup would do to the iCloud folder as it is now: what would go to the Trash, what
// would be put back as the backup has it, and what would be copied back. The compare runs off the main
// thread and touches nothing; the window opens at once and says it is comparing until the answer comes.
// Closing the window stops the compare, and an answer that comes back after that is never shown.
class CompareWindowController : public QWidget {
    Q_OBJECT

public:
    // The groups of the item tree, in order.
    enum Group { Added, Changed, Removed };

    explicit CompareWindowController(QWidget* parent = nullptr);
    ~CompareWindowController() override;

    // Shows the window and compares afresh; a compare still under way is stopped and its answer dropped.
    // `backupName` names the backup in the title, as the info window shows its date.
    void compare(const QString& liveFolder, const QString& backupFolder, const QString& backupName);
    bool isComparing() const { return m_stop != nullptr; }

    // What the window says: comparing, no difference, what a restore would do, or that the backup could
    // not be read.
    QLabel* statusLabel() const;
    QProgressBar* comparingIndicator() const;
    // One heading per group (count and total size), its items below it; empty until an answer is shown.
    QTreeWidget* itemTree() const;

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void showComparison(const Comparison& comparison);
    void stopComparing();

    std::unique_ptr<Ui::CompareWindowController> m_ui;
    // The compare under way; a result that comes back after another was started, or after the window
    // closed, is dropped.
    std::shared_ptr<std::atomic<bool>> m_stop;
    std::uint64_t m_compare = 0;
};
