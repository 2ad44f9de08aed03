#pragma once

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QThreadPool>
#include <type_traits>
#include <utility>

// The one way work leaves the main thread and comes back: `work` runs on the shared pool, and `then`
// gets its result on the thread of `context`, always later through the context's event loop (never
// within this call, even for work that is done at once), and only while `context` lives; otherwise the
// result is dropped. A worker must hold nothing of the context but values and shared flags, since it
// may outlive it.
//
// Not QFuture::then with a context: on Qt 6.4 a continuation attached to a future that is already
// finished can run before the caller has returned, and callers rely on their own next step (a cancel,
// say) coming first.
template<typename Work, typename Then>
void runInBackground(QObject* context, Work work, Then then)
{
    QPointer<QObject> guard(context);
    QThreadPool::globalInstance()->start([work = std::move(work), then = std::move(then), guard]() mutable {
        auto result = work();
        // Posted to the application object, which outlives every context; the guard is read there.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [then = std::move(then), guard, result = std::move(result)]() mutable {
                if (guard)
                    then(std::move(result));
            },
            Qt::QueuedConnection);
    });
}

// Work whose result nobody waits for, on the same pool.
template<typename Work>
void runInBackground(Work work)
{
    QThreadPool::globalInstance()->start(std::move(work));
}
