#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class QThread;

// Flag bits of a delivered event, with the values of the macOS file-system event stream so that they
// mean the same everywhere they are passed through.
namespace EventStreamFlags {
inline constexpr std::uint32_t kNone = 0x00000000;
inline constexpr std::uint32_t kMustScanSubDirs = 0x00000001; // events were lost: rescan the whole path
inline constexpr std::uint32_t kUserDropped = 0x00000002;
inline constexpr std::uint32_t kKernelDropped = 0x00000004; // the kernel's queue overflowed
inline constexpr std::uint32_t kRootChanged = 0x00000020;   // a root left its path, or a folder came there
} // namespace EventStreamFlags

struct StreamEvent {
    QString path;            // the changed folder, no trailing "/"
    std::uint32_t flags = 0; // EventStreamFlags bits
    std::uint64_t id = 0;    // grows with every event of the process
    // The same path as the file system's own bytes. `path` cannot carry names that are not UTF-8: Qt
    // turns their bytes into U+FFFD, and QFile::encodeName does not bring them back.
    QByteArray nativePath = {};
};

// A stream of folder-change events over a list of paths, delivered in batches on the event loop of the
// thread it is scheduled on. The operations mirror the macOS file-system event stream's:
// create (EventStream::create) → scheduleWithThread → start → stop → unscheduleFromThread → invalidate
// → release (destruction).
//
// - Only "since now" is supported as since-when: the platform keeps no history of past changes.
// - A root is its path, not one folder: missing at the start, deleted, moved away or replaced, it is
//   watched again, whole, as soon as a folder is at that path. Its going and its coming are each
//   reported for the root with kRootChanged.
// - Changes are coalesced per folder for at most the latency, then delivered as one batch.
// - After stop() returns, the callback is never called again.
class EventStream {
public:
    using Callback = std::function<void(const QList<StreamEvent>& batch)>;
    static constexpr std::uint64_t kSinceNow = 0xFFFFFFFFFFFFFFFFull;

    virtual ~EventStream() = default;

    // The inotify stream, or the polling one when inotify cannot start at all.
    static std::unique_ptr<EventStream> create(const QStringList& paths, std::uint64_t sinceWhen,
                                               double latencySeconds, Callback callback);

    virtual void scheduleWithThread(QThread* thread) = 0;
    virtual void unscheduleFromThread(QThread* thread) = 0;
    // Starts watching; every watch is in place when it returns, a missing root being waited for. False
    // when it could not start.
    virtual bool start() = 0;
    virtual void stop() = 0;
    virtual void invalidate() = 0;
    // Delivers every pending event; returns after the callback has had them.
    virtual void flushSync() = 0;
    // Asks for pending events to be delivered soon, without waiting.
    virtual void flushAsync() = 0;
    // Human-readable: backend, paths, state, folders watched, and any part of the tree not watched.
    virtual QString copyDescription() const = 0;
};
