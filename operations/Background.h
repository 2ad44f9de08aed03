#pragma once

#include <QFuture>
#include <QObject>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>
#include <functional>
#include <utility>

// The one way work leaves the main thread and comes back: `work` runs on the shared pool, and `then`
// gets its result on the thread of `context`, unless `context` is gone by then (the result is dropped).
// A worker must hold nothing of the context but values and shared flags, since it may outlive it.
template <typename Work, typename Then>
void runInBackground(QObject* context, Work&& work, Then&& then)
{
    QtConcurrent::run(QThreadPool::globalInstance(), std::forward<Work>(work)).then(context, std::forward<Then>(then));
}

// Work whose result nobody waits for, on the same pool.
template <typename Work>
void runInBackground(Work&& work)
{
    QThreadPool::globalInstance()->start(std::forward<Work>(work));
}
