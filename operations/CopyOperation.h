#pragma once

#include "engine/CopyOutcome.h"
#include "engine/DirectoryCopier.h"
#include "operations/Background.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <QObject>
#include <QSemaphore>
#include <QString>
#include <vector>

// What a back-up run and a restore run have in common: the counters the progress window shows, the
// cancel and quit flags the background work reads, and the copy on a pool thread whose per-file
// progress comes back to this object's thread in batches.
//
// Background steps hold only shared flags and a guarded pointer to the operation, so an operation can be
// let go while its worker still runs; the worker's result is then dropped.
class CopyOperation : public QObject {
    Q_OBJECT

public:
    using Copier = std::function<CopyOutcome(
        const std::filesystem::path& source, const std::filesystem::path& destination,
        const std::atomic<bool>& cancelRequested, const DirectoryCopier::Progress& progress,
        const std::atomic<bool>* abandonRequested, PreviousBackup* previous)>;

    explicit CopyOperation(Copier copier, QObject* parent = nullptr);
    ~CopyOperation() override;

    std::int32_t totalCountOfItemsToCopy() const { return m_totalCount; }
    std::uint64_t totalSizeOfItemsToCopy() const { return m_totalSize; }
    std::int32_t currentCountOfCopiedItems() const { return m_currentCount; }
    std::uint64_t currentSizeOfCopiedItems() const { return m_currentSize; }

    // "path: reason" for each item, one per line, as the user reads names.
    static QString describeItems(const std::vector<FsError>& items);

    bool isCanceled() const { return m_canceled->load(); }
    bool hasEnded() const { return m_ended; }

    // The Cancel button: a count stops counting, a preparation stops at its next item, and the copier
    // stops after the item it is copying.
    void cancel();
    // The program is quitting: every walk stops at once, the copier even inside a big file.
    void abandon();
    // Waits at most `timeout` for the background steps started so far to return; true once they have.
    bool waitForWorkers(std::chrono::milliseconds timeout);

signals:
    void progressChanged();
    // The counting or preparation is done, the checks passed, and the copy has started.
    void copyingStarted();
    void ended();

protected:
    void setTotals(std::uint64_t size, std::int32_t count);
    // Runs `work` on a pool thread; `then` gets its result on this object's thread, unless this object
    // is gone by then.
    template<typename Result>
    void inBackground(std::function<Result()> work, std::function<void(Result)> then);
    // Given a previous backup's folder, the copy links the files it holds unchanged instead of copying.
    void startCopy(const std::filesystem::path& source, const std::filesystem::path& destination,
                   const std::filesystem::path& previousBackup = {});
    virtual void copyEnded(const CopyOutcome& outcome) = 0;
    void end();

    const std::shared_ptr<std::atomic<bool>>& canceledFlag() const { return m_canceled; }
    const std::shared_ptr<std::atomic<bool>>& abandonFlag() const { return m_abandon; }

private:
    void progressUpdate(const std::filesystem::path& copiedSource);
    void workerStarted() { ++m_workersStarted; }

    Copier m_copier;
    std::shared_ptr<std::atomic<bool>> m_canceled = std::make_shared<std::atomic<bool>>(false);
    // Set exactly when the Cancel button is disabled; the copier reads this one.
    std::shared_ptr<std::atomic<bool>> m_cancelCopy = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<bool>> m_abandon = std::make_shared<std::atomic<bool>>(false);
    // Released once by every background step as it returns.
    std::shared_ptr<QSemaphore> m_workersDone;
    int m_workersStarted = 0;
    int m_workersWaitedFor = 0;
    std::int32_t m_totalCount = 0;
    std::uint64_t m_totalSize = 0;
    std::int32_t m_currentCount = 0;
    std::uint64_t m_currentSize = 0;
    bool m_ended = false;
};

template<typename Result>
inline void CopyOperation::inBackground(std::function<Result()> work, std::function<void(Result)> then)
{
    workerStarted();
    std::shared_ptr<QSemaphore> done = m_workersDone;
    runInBackground(
        this,
        [work = std::move(work), done] {
            Result result = work();
            // The main loop may never run again (the program is quitting): the quit guard waits on this.
            done->release();
            return result;
        },
        std::move(then));
}
