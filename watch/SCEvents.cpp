#include "SCEvents.h"

#include <QThread>

namespace {

// A list printed the way a property-list array describes itself; "(null)" when there is none.
QString listDescription(const std::shared_ptr<const QStringList>& list)
{
    if (!list)
        return QStringLiteral("(null)");
    QStringList quoted;
    for (const QString& item : *list)
        quoted << QStringLiteral("    \"%1\"").arg(item);
    return QStringLiteral("(\n%1\n)").arg(quoted.join(QStringLiteral(",\n")));
}

} // namespace

SCEvents::SCEvents()
    : SCEvents(&EventStream::create)
{
}

SCEvents::SCEvents(StreamFactory streamFactory)
    : m_streamFactory(std::move(streamFactory))
{
}

SCEvents::~SCEvents()
{
    setDelegate(nullptr);
    if (isWatchingPaths())
        stopWatchingPaths();
    setLastEvent(nullptr);
    setWatchedPaths(nullptr);
    setExcludedPaths(nullptr);
}

bool SCEvents::startWatchingPaths(const QStringList& paths)
{
    return startWatchingPaths(paths, QThread::currentThread());
}

bool SCEvents::startWatchingPaths(const QStringList& paths, QThread* runLoop)
{
    if (paths.isEmpty() || isWatchingPaths())
        return false;
    m_eventsQueue.sync([&] { startSteps(paths, runLoop); });
    return true;
}

void SCEvents::startSteps(const QStringList& paths, QThread* runLoop)
{
    m_runLoop.store(runLoop);
    setWatchedPaths(std::make_shared<const QStringList>(paths));
    m_eventStream = m_streamFactory(paths, resumeFromEventId(), notificationLatency(),
                                    [this](const QList<StreamEvent>& batch) { eventStreamCallback(batch); });
    // As with the platform's own stream, a failure to create or start goes unnoticed here: the watcher
    // believes itself watching, and a later stop is still carried out.
    if (m_eventStream) {
        m_eventStream->scheduleWithThread(runLoop);
        m_eventStream->start();
    }
    m_isWatchingPaths.store(true);
}

bool SCEvents::stopWatchingPaths()
{
    if (!isWatchingPaths())
        return false;
    m_eventsQueue.sync([this] { stopSteps(); });
    return true;
}

void SCEvents::stopSteps()
{
    if (m_eventStream) {
        m_eventStream->stop();
        if (QThread* loop = runLoop())
            m_eventStream->unscheduleFromThread(loop);
        m_eventStream->invalidate();
        m_eventStream.reset();
    }
    // runLoop and watchedPaths keep telling what was watched last.
    m_isWatchingPaths.store(false);
}

bool SCEvents::flushEventStreamSync()
{
    return runOnWatchingStream(&EventStream::flushSync);
}

bool SCEvents::flushEventStreamAsync()
{
    return runOnWatchingStream(&EventStream::flushAsync);
}

bool SCEvents::runOnWatchingStream(void (EventStream::*operation)())
{
    if (!isWatchingPaths())
        return false;
    m_eventsQueue.sync([&] {
        if (m_eventStream)
            (m_eventStream.get()->*operation)();
    });
    return true;
}

std::optional<QString> SCEvents::streamDescription()
{
    return m_eventsQueue.sync([this]() -> std::optional<QString> {
        if (!isWatchingPaths() || !m_eventStream)
            return std::nullopt;
        return m_eventStream->copyDescription();
    });
}

QString SCEvents::description() const
{
    return QStringLiteral("<%1 { watchedPaths = %2, excludedPaths = %3 } >")
        .arg(QStringLiteral("SCEvents"), listDescription(watchedPaths()), listDescription(excludedPaths()));
}

bool SCEvents::isExcluded(const QString& path, const QStringList* excluded) const
{
    if (!excluded)
        return false;
    if (excluded->contains(path))
        return true;
    if (!ignoreEventsFromSubDirs())
        return false;
    // A plain string prefix, on purpose: an excluded /a/b also drops /a/bc.
    for (const QString& prefix : *excluded) {
        if (path.startsWith(prefix))
            return true;
    }
    return false;
}

void SCEvents::eventStreamCallback(const QList<StreamEvent>& batch)
{
    const std::shared_ptr<const QStringList> excluded = excludedPaths();
    // Kept as it is: once one event of a batch was ignored, every later event of that batch is too.
    bool shouldIgnore = false;
    for (qsizetype i = 0; i < batch.size(); ++i) {
        const StreamEvent& streamEvent = batch.at(i);
        if (isExcluded(streamEvent.path, excluded.get())) {
            shouldIgnore = true;
            continue;
        }
        if (shouldIgnore)
            continue;
        QString path = streamEvent.path;
        if (path.endsWith(QLatin1Char('/')))
            path.chop(1);
        auto event = SCEvent::eventWithEventId(streamEvent.id, QDateTime::currentDateTime(), path,
                                               static_cast<std::int32_t>(streamEvent.flags));
        if (SCEventListenerProtocol* listener = delegate())
            listener->pathWatcherEventOccurred(this, event);
        if (i == batch.size() - 1)
            setLastEvent(event);
    }
}
