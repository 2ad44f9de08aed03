#pragma once

#include "platform/EventStream.h"
#include "SCEvent.h"
#include "watch/SerialQueue.h"

#include <atomic>
#include <memory>
#include <optional>
#include <QStringList>

class QThread;
class SCEvents;

class SCEventListenerProtocol {
public:
    virtual ~SCEventListenerProtocol() = default;
    // pathWatcher:eventOccurred:
    virtual void pathWatcherEventOccurred(SCEvents* pathWatcher, const std::shared_ptr<SCEvent>& event) = 0;
};

// Watches folders and tells one listener about each change, dropping events for excluded paths.
// Start, stop, both flushes and the stream description run one at a time on the private queue
// "scevents.queue", the caller waiting; the listener is called on the thread the stream was scheduled
// on, outside that queue. Properties the callback reads (listener, exclusions, last event) are swapped
// whole, so another thread may set them at any time.
class SCEvents {
public:
    using StreamFactory =
        std::function<std::unique_ptr<EventStream>(const QStringList& paths, std::uint64_t sinceWhen,
                                                   double latencySeconds, EventStream::Callback callback)>;

    SCEvents();
    // Tests hand in their own streams; the program uses EventStream::create.
    explicit SCEvents(StreamFactory streamFactory);
    ~SCEvents();
    SCEvents(const SCEvents&) = delete;
    SCEvents& operator=(const SCEvents&) = delete;

    SCEventListenerProtocol* delegate() const { return m_delegate.load(); }
    void setDelegate(SCEventListenerProtocol* delegate) { m_delegate.store(delegate); }
    bool isWatchingPaths() const { return m_isWatchingPaths.load(); }
    bool ignoreEventsFromSubDirs() const { return m_ignoreEventsFromSubDirs.load(); }
    void setIgnoreEventsFromSubDirs(bool ignore) { m_ignoreEventsFromSubDirs.store(ignore); }
    double notificationLatency() const { return m_notificationLatency.load(); }
    void setNotificationLatency(double seconds) { m_notificationLatency.store(seconds); }
    std::uint64_t resumeFromEventId() const { return m_resumeFromEventId.load(); }
    void setResumeFromEventId(std::uint64_t eventId) { m_resumeFromEventId.store(eventId); }
    QThread* runLoop() const { return m_runLoop.load(); }

    std::shared_ptr<SCEvent> lastEvent() const { return m_lastEvent.load(); }
    void setLastEvent(std::shared_ptr<SCEvent> event) { m_lastEvent.store(std::move(event)); }
    // Null until set: "never set" and "set to an empty list" are told apart, as the description shows.
    std::shared_ptr<const QStringList> watchedPaths() const { return m_watchedPaths.load(); }
    void setWatchedPaths(std::shared_ptr<const QStringList> paths) { m_watchedPaths.store(std::move(paths)); }
    std::shared_ptr<const QStringList> excludedPaths() const { return m_excludedPaths.load(); }
    void setExcludedPaths(std::shared_ptr<const QStringList> paths)
    {
        m_excludedPaths.store(std::move(paths));
    }

    // On the calling thread's event loop.
    bool startWatchingPaths(const QStringList& paths);
    bool startWatchingPaths(const QStringList& paths, QThread* runLoop);
    bool stopWatchingPaths();
    bool flushEventStreamSync();
    bool flushEventStreamAsync();
    // The stream's own description while watching; nothing when idle.
    std::optional<QString> streamDescription();
    // "<SCEvents { watchedPaths = ..., excludedPaths = ... } >"
    QString description() const;

    // The stream's callback: filters one batch and hands the remaining events to the listener.
    void eventStreamCallback(const QList<StreamEvent>& batch);

    const SerialQueue& eventsQueue() const { return m_eventsQueue; }

private:
    bool isExcluded(const QString& path, const QStringList* excluded) const;
    bool runOnWatchingStream(void (EventStream::*operation)());
    void startSteps(const QStringList& paths, QThread* runLoop);
    void stopSteps();

    StreamFactory m_streamFactory;
    std::atomic<SCEventListenerProtocol*> m_delegate{nullptr};
    std::atomic<bool> m_isWatchingPaths{false};
    std::atomic<bool> m_ignoreEventsFromSubDirs{true};
    std::atomic<QThread*> m_runLoop{nullptr};
    std::unique_ptr<EventStream> m_eventStream;
    std::atomic<double> m_notificationLatency{3.0};
    // All bits set means "since now": only changes from the moment of start on.
    std::atomic<std::uint64_t> m_resumeFromEventId{EventStream::kSinceNow};
    std::atomic<std::shared_ptr<SCEvent>> m_lastEvent;
    std::atomic<std::shared_ptr<const QStringList>> m_watchedPaths;
    std::atomic<std::shared_ptr<const QStringList>> m_excludedPaths;
    SerialQueue m_eventsQueue{QStringLiteral("scevents.queue")};
};
