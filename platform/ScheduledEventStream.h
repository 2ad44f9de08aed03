#pragma once

#include "EventStream.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class QObject;
class QTimer;

// What the two event-stream backends share: the life cycle, the thread the stream is scheduled on,
// coalescing per folder and delivery in batches. A backend only watches and calls noteChange().
//
// Everything that touches the stream's state runs on the scheduled thread: a call from that thread runs
// at once, a call from any other thread is handed over and waited for, which needs that thread's event
// loop to be running. Calls may come from any thread, one at a time.
class ScheduledEventStream : public EventStream {
public:
    ~ScheduledEventStream() override;

    void scheduleWithThread(QThread* thread) final;
    void unscheduleFromThread(QThread* thread) final;
    bool start() final;
    void stop() final;
    void invalidate() final;
    void flushSync() final;
    void flushAsync() final;
    QString copyDescription() const final;

protected:
    ScheduledEventStream(const QStringList& paths, double latencySeconds, Callback callback);

    // Backend hooks, all called on the scheduled thread (or on the caller's while that thread does not
    // run, when nothing else can).
    virtual bool beginWatching() = 0;
    virtual void endWatching() = 0;
    // Takes in the changes that happened but were not noted yet, for a flush.
    virtual void collectChanges() = 0;
    // The loop objects are going: pointers to what the backend made with loopContext() are stale now.
    virtual void loopDetached() = 0;
    virtual QString backendName() const = 0;
    // How much of the trees is watched, and what is not.
    virtual QString coverageDescription() const = 0;

    bool isRunning() const { return m_state == State::Running; }
    // Absolute, clean, without a trailing "/": the file system's own bytes.
    const std::vector<std::string>& rootPaths() const { return m_rootPaths; }
    // Lives on the scheduled thread: the parent of the backend's notifiers and timers.
    QObject* loopContext() const { return m_context; }

    // Runs `work` on the scheduled thread: at once when already there, else queued.
    void onLoopThread(std::function<void()> work);
    // `work` wrapped to do nothing once the loop objects it was made for are gone.
    std::function<void()> guarded(std::function<void()> work) const;

    void noteChange(const std::string& folder, std::uint32_t flags = EventStreamFlags::kNone);
    void deliverPending();
    // Derived destructors call this first: the loop must be done with their part before it goes.
    void release();

private:
    enum class State { Idle, Running, Invalidated };
    enum class Reach { Here, Waiting, Unreachable };
    struct Pending {
        std::uint32_t flags = 0;
        std::uint64_t id = 0;
    };
    // Shared with what was handed to the loop, which may outlive the stream: `depth` counts the calls
    // from the loop into the stream under way, on the scheduled thread only.
    struct LoopToken {
        std::atomic<bool> attached{true};
        int depth = 0;
    };

    Reach reach() const;
    void runOnLoop(const std::function<void()>& work) const;
    bool startOnLoop();
    void stopOnLoop();
    void flushOnLoop();
    void detachFromLoop();
    void armLatencyTimer();
    QList<StreamEvent> takeBatch();
    QString describe() const;
    static std::uint64_t nextEventId();

    QStringList m_paths;
    std::vector<std::string> m_rootPaths;
    int m_latencyMs = 0;
    Callback m_callback;
    State m_state = State::Idle;
    QObject* m_context = nullptr;
    QTimer* m_latencyTimer = nullptr;
    std::shared_ptr<LoopToken> m_token;
    std::unordered_map<std::string, Pending> m_pending;
};
