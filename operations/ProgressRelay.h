#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <QPointer>
#include <vector>

class QObject;

// Carries the copier's progress, one update per copied file, from its worker thread to the main thread,
// where the updates are applied one by one in the order the files were copied.
//
// The main thread is woken once per batch instead of once per file: waking another processor costs
// more than copying a small file, most of all on a virtual machine, and a progress bar gains nothing
// from hearing about thousands of files a second one at a time. A batch is applied `delay` after its
// first update, or at once by flush(), which the step that ends a copy calls first.
class ProgressRelay : public std::enable_shared_from_this<ProgressRelay> {
public:
    using Apply = std::function<void(const std::filesystem::path&)>;

    // About forty updates of a progress window a second.
    static constexpr std::chrono::milliseconds kBatchDelay{25};

    // `apply` runs on the thread of `context` and never once `context` is gone. Shared, so that a
    // worker thread can go on posting after the owner has let it go.
    static std::shared_ptr<ProgressRelay> create(QObject* context, Apply apply,
                                                 std::chrono::milliseconds delay = kBatchDelay);

    // From any thread.
    void post(std::filesystem::path copiedSource);

    // On the context's thread: applies every update posted so far.
    void flush();

private:
    ProgressRelay(QObject* context, Apply apply, std::chrono::milliseconds delay);

    void applyLater();

    QPointer<QObject> m_context;
    Apply m_apply;
    std::chrono::milliseconds m_delay;
    std::mutex m_mutex;
    std::vector<std::filesystem::path> m_pending;
    bool m_batchScheduled = false;
};
