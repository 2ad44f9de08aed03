#include "ScheduledEventStream.h"

#include <algorithm>
#include <cmath>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <utility>

namespace {

// A day: beyond that a latency means "only when flushed", and it must still fit a timer's int.
constexpr double kLongestLatencySeconds = 86400.0;

int milliseconds(double seconds)
{
    return static_cast<int>(std::lround(std::clamp(seconds, 0.0, kLongestLatencySeconds) * 1000.0));
}

std::string rootBytes(const QString& path)
{
    return QFile::encodeName(QDir::cleanPath(QFileInfo(path).absoluteFilePath())).toStdString();
}

} // namespace

ScheduledEventStream::ScheduledEventStream(const QStringList& paths, double latencySeconds, Callback callback)
    : m_paths(paths)
    , m_latencyMs(milliseconds(latencySeconds))
    , m_callback(std::move(callback))
{
    m_rootPaths.reserve(static_cast<std::size_t>(paths.size()));
    for (const QString& path : paths)
        m_rootPaths.push_back(rootBytes(path));
}

ScheduledEventStream::~ScheduledEventStream()
{
    release();
}

void ScheduledEventStream::release()
{
    invalidate();
}

void ScheduledEventStream::scheduleWithThread(QThread* thread)
{
    // One loop at a time: a stream delivering on two threads at once would break the order of batches.
    if (!thread || m_context || m_state == State::Invalidated)
        return;
    m_context = new QObject;
    m_context->moveToThread(thread);
    m_token = std::make_shared<LoopToken>();
}

void ScheduledEventStream::unscheduleFromThread(QThread* thread)
{
    if (!m_context || m_context->thread() != thread)
        return;
    // Without a loop nothing could be delivered, so the stream stops rather than pile up changes.
    runOnLoop([this] {
        stopOnLoop();
        detachFromLoop();
    });
    QObject* context = std::exchange(m_context, nullptr);
    // Deleting it from inside one of its own events would pull the event out from under Qt.
    if (context->thread() == QThread::currentThread() && m_token->depth == 0)
        delete context;
    else
        context->deleteLater();
}

bool ScheduledEventStream::start()
{
    if (!m_context)
        return false;
    bool started = false;
    runOnLoop([&] { started = startOnLoop(); });
    return started;
}

void ScheduledEventStream::stop()
{
    runOnLoop([this] { stopOnLoop(); });
}

void ScheduledEventStream::invalidate()
{
    if (m_state == State::Invalidated)
        return;
    stop();
    if (m_context)
        unscheduleFromThread(m_context->thread());
    m_state = State::Invalidated;
}

void ScheduledEventStream::flushSync()
{
    if (!m_context)
        return;
    switch (reach()) {
    case Reach::Here:
        flushOnLoop();
        break;
    case Reach::Waiting:
        runOnLoop([this] { flushOnLoop(); });
        break;
    case Reach::Unreachable:
        // The callback belongs to the scheduled thread; waiting for a loop that does not run would hang.
        flushAsync();
        break;
    }
}

void ScheduledEventStream::flushAsync()
{
    if (m_context)
        QMetaObject::invokeMethod(m_context, guarded([this] { flushOnLoop(); }), Qt::QueuedConnection);
}

QString ScheduledEventStream::copyDescription() const
{
    QString text;
    runOnLoop([&] { text = describe(); });
    return text;
}

void ScheduledEventStream::onLoopThread(std::function<void()> work)
{
    if (!m_context)
        return;
    if (m_context->thread() == QThread::currentThread())
        work();
    else
        QMetaObject::invokeMethod(m_context, guarded(std::move(work)), Qt::QueuedConnection);
}

std::function<void()> ScheduledEventStream::guarded(std::function<void()> work) const
{
    return [token = m_token, work = std::move(work)] {
        if (!token || !token->attached.load())
            return;
        ++token->depth;
        work();
        --token->depth;
    };
}

void ScheduledEventStream::noteChange(const std::string& folder, std::uint32_t flags)
{
    if (m_state != State::Running)
        return;
    auto [pending, added] = m_pending.try_emplace(folder);
    if (added)
        pending->second.id = nextEventId();
    pending->second.flags |= flags;
    armLatencyTimer();
}

void ScheduledEventStream::deliverPending()
{
    if (m_state != State::Running || m_pending.empty())
        return;
    if (m_latencyTimer)
        m_latencyTimer->stop();
    const QList<StreamEvent> batch = takeBatch();
    // Nothing of the stream is touched afterwards: the callback may well destroy it.
    m_callback(batch);
}

ScheduledEventStream::Reach ScheduledEventStream::reach() const
{
    if (!m_context || m_context->thread() == QThread::currentThread())
        return Reach::Here;
    return m_context->thread()->isRunning() ? Reach::Waiting : Reach::Unreachable;
}

// Running on the scheduled thread is what keeps a stopped stream from delivering: a delivery queued
// before stop() runs after it there, sees the state, and gives up.
void ScheduledEventStream::runOnLoop(const std::function<void()>& work) const
{
    if (reach() != Reach::Waiting) {
        work();
        return;
    }
    QMetaObject::invokeMethod(
        m_context,
        [&work, token = m_token] {
            ++token->depth;
            work();
            --token->depth;
        },
        Qt::BlockingQueuedConnection);
}

bool ScheduledEventStream::startOnLoop()
{
    if (m_state == State::Invalidated)
        return false;
    if (m_state == State::Running)
        return true;
    if (!beginWatching()) {
        endWatching();
        return false;
    }
    m_state = State::Running;
    return true;
}

void ScheduledEventStream::stopOnLoop()
{
    if (m_state != State::Running)
        return;
    m_state = State::Idle;
    m_pending.clear();
    if (m_latencyTimer && m_latencyTimer->thread() == QThread::currentThread())
        m_latencyTimer->stop();
    endWatching();
}

void ScheduledEventStream::flushOnLoop()
{
    if (m_state != State::Running)
        return;
    collectChanges();
    deliverPending();
}

void ScheduledEventStream::detachFromLoop()
{
    m_token->attached.store(false);
    if (m_latencyTimer && m_latencyTimer->thread() == QThread::currentThread())
        m_latencyTimer->stop();
    m_latencyTimer = nullptr;
    m_pending.clear();
    loopDetached();
}

void ScheduledEventStream::armLatencyTimer()
{
    if (!m_context)
        return;
    if (m_context->thread() != QThread::currentThread()) {
        onLoopThread([this] { armLatencyTimer(); });
        return;
    }
    if (!m_latencyTimer) {
        m_latencyTimer = new QTimer(m_context);
        m_latencyTimer->setSingleShot(true);
        m_latencyTimer->setTimerType(Qt::PreciseTimer);
        QObject::connect(m_latencyTimer, &QTimer::timeout, m_context, guarded([this] { deliverPending(); }));
    }
    // Started by the first change and left running by the later ones: a steady trickle of changes
    // must not hold the batch back forever.
    if (!m_latencyTimer->isActive())
        m_latencyTimer->start(m_latencyMs);
}

QList<StreamEvent> ScheduledEventStream::takeBatch()
{
    std::vector<std::pair<std::uint64_t, const std::string*>> order;
    order.reserve(m_pending.size());
    for (const auto& [path, pending] : m_pending)
        order.emplace_back(pending.id, &path);
    std::sort(order.begin(), order.end());
    QList<StreamEvent> batch;
    batch.reserve(static_cast<qsizetype>(order.size()));
    for (const auto& [id, path] : order) {
        const QByteArray bytes = QByteArray::fromStdString(*path);
        batch.append(StreamEvent{QFile::decodeName(bytes), m_pending[*path].flags, id, bytes});
    }
    m_pending.clear();
    return batch;
}

QString ScheduledEventStream::describe() const
{
    QStringList quoted;
    for (const QString& path : m_paths)
        quoted << QStringLiteral("\"%1\"").arg(path);
    const QString state = m_state == State::Running ? QStringLiteral("running")
                          : m_state == State::Idle  ? QStringLiteral("stopped")
                                                    : QStringLiteral("invalidated");
    return QStringLiteral("%1 event stream { state = %2, latency = %3 s, scheduled = %4, pending = %5, "
                          "paths = (%6) }: %7")
        .arg(backendName(), state, QString::number(m_latencyMs / 1000.0),
             m_context ? QStringLiteral("yes") : QStringLiteral("no"), QString::number(m_pending.size()),
             quoted.join(QStringLiteral(", ")), coverageDescription());
}

std::uint64_t ScheduledEventStream::nextEventId()
{
    static std::atomic<std::uint64_t> lastId{0};
    return ++lastId;
}
