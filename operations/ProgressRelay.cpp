#include "ProgressRelay.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QTimer>
#include <utility>

std::shared_ptr<ProgressRelay> ProgressRelay::create(QObject* context, Apply apply,
                                                     std::chrono::milliseconds delay)
{
    return std::shared_ptr<ProgressRelay>(new ProgressRelay(context, std::move(apply), delay));
}

ProgressRelay::ProgressRelay(QObject* context, Apply apply, std::chrono::milliseconds delay)
    : m_context(context)
    , m_apply(std::move(apply))
    , m_delay(delay)
{
}

// Only the first update of a batch wakes the context's thread; the later ones join it.
void ProgressRelay::post(std::filesystem::path copiedSource)
{
    bool firstOfBatch = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_pending.push_back(std::move(copiedSource));
        firstOfBatch = !std::exchange(m_batchScheduled, true);
    }
    if (firstOfBatch)
        // The application object outlives every context, so the post is safe whatever the context does.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [self = shared_from_this()] { self->applyLater(); },
            Qt::QueuedConnection);
}

void ProgressRelay::applyLater()
{
    QTimer::singleShot(m_delay, QCoreApplication::instance(), [self = shared_from_this()] { self->flush(); });
}

void ProgressRelay::flush()
{
    std::vector<std::filesystem::path> batch;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        batch.swap(m_pending);
        m_batchScheduled = false;
    }
    for (const std::filesystem::path& copiedSource : batch) {
        if (!m_context)
            return;
        m_apply(copiedSource);
    }
}
