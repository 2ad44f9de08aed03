#pragma once

#include "platform/EventStream.h"

#include <functional>
#include <memory>
#include <QStringList>
#include <QThread>

// What the watcher asked of its stream, in order.
struct StreamLog {
    QStringList calls;
    QStringList paths;
    std::uint64_t sinceWhen = 0;
    double latency = 0;
    QThread* scheduledOn = nullptr;
    EventStream::Callback callback;
    std::function<void()> duringStart;
};

class ScriptedEventStream : public EventStream {
public:
    explicit ScriptedEventStream(StreamLog& log)
        : m_log(log)
    {
    }
    ~ScriptedEventStream() override { m_log.calls << "release"; }
    void scheduleWithThread(QThread* thread) override
    {
        m_log.calls << "schedule";
        m_log.scheduledOn = thread;
    }
    void unscheduleFromThread(QThread*) override { m_log.calls << "unschedule"; }
    bool start() override
    {
        if (m_log.duringStart)
            m_log.duringStart();
        m_log.calls << "start";
        return true;
    }
    void stop() override { m_log.calls << "stop"; }
    void invalidate() override { m_log.calls << "invalidate"; }
    void flushSync() override { m_log.calls << "flushSync"; }
    void flushAsync() override { m_log.calls << "flushAsync"; }
    QString copyDescription() const override { return "scripted stream"; }

private:
    StreamLog& m_log;
};

// A stream factory that records into `log` and hands out scripted streams.
inline std::function<std::unique_ptr<EventStream>(const QStringList&, std::uint64_t, double,
                                                  EventStream::Callback)>
scriptedStreamFactory(StreamLog& log)
{
    return [&log](const QStringList& paths, std::uint64_t since, double latency,
                  EventStream::Callback callback) {
        log.calls << "create";
        log.paths = paths;
        log.sinceWhen = since;
        log.latency = latency;
        log.callback = std::move(callback);
        return std::make_unique<ScriptedEventStream>(log);
    };
}
