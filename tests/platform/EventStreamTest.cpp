#include "platform/EventStream.h"
#include "platform/InotifyEventStream.h"
#include "platform/PollingEventStream.h"
#include "support/EventLoop.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"
#include <mutex>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kBoundMs = 5000;
// How long a test looks for events that must not come. Not a wait for an event: nothing ends it early.
constexpr int kQuietMs = 300;
constexpr const char* kQueueSizeKnob = "/proc/sys/fs/inotify/max_queued_events";
constexpr long long kDefaultQueueSize = 16384;
constexpr long long kSaneQueueSize = 1024;

QByteArray bytesOf(const fs::path& path)
{
    return QByteArray::fromStdString(path.string());
}

QString qtPath(const fs::path& path)
{
    return QFile::decodeName(bytesOf(path));
}

// The overflow test shrinks the kernel's event queue for every inotify instance made meanwhile; holding
// this lock around each creation keeps the other tests (and other copies of this suite) out of it.
class InotifyCreationLock {
public:
    explicit InotifyCreationLock(int operation)
        : m_fd(::open("/tmp/pelmora-eventstream-tests.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666))
    {
        if (m_fd >= 0)
            ::flock(m_fd, operation);
    }
    ~InotifyCreationLock()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    InotifyCreationLock(const InotifyCreationLock&) = delete;
    InotifyCreationLock& operator=(const InotifyCreationLock&) = delete;

private:
    int m_fd;
};

struct InotifyBackend {
    static constexpr bool kHoldsEventsBack = true;

    static std::unique_ptr<EventStream> make(const QStringList& paths, EventStream::Callback callback,
                                             double latencySeconds = 0.05,
                                             InotifyEventStream::Limits limits = {})
    {
        InotifyCreationLock lock(LOCK_SH);
        return InotifyEventStream::create(paths, latencySeconds, std::move(callback), limits);
    }
};

struct PollingBackend {
    // What a poll finds is delivered at once.
    static constexpr bool kHoldsEventsBack = false;

    static std::unique_ptr<EventStream> make(const QStringList& paths, EventStream::Callback callback,
                                             double latencySeconds = 1.0)
    {
        return std::make_unique<PollingEventStream>(paths, latencySeconds, std::move(callback),
                                                    std::chrono::milliseconds(50));
    }
};

// Events as the callback saw them; the callback may run on another thread.
class Recorder {
public:
    EventStream::Callback callback()
    {
        return [this](const QList<StreamEvent>& batch) {
            std::lock_guard<std::mutex> locked(m_mutex);
            if (m_stopReturned.load())
                m_calledAfterStop = true;
            m_threads.push_back(QThread::currentThread());
            m_batches.push_back(std::vector<StreamEvent>(batch.begin(), batch.end()));
        };
    }

    bool has(const fs::path& folder, std::uint32_t flags = EventStreamFlags::kNone) const
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        for (const auto& batch : m_batches) {
            for (const StreamEvent& event : batch) {
                if (event.nativePath == bytesOf(folder) && (event.flags & flags) == flags)
                    return true;
            }
        }
        return false;
    }

    bool waitFor(const fs::path& folder, std::uint32_t flags = EventStreamFlags::kNone) const
    {
        return runEventLoopUntil([&] { return has(folder, flags); }, kBoundMs);
    }

    std::vector<StreamEvent> events() const
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        std::vector<StreamEvent> all;
        for (const auto& batch : m_batches)
            all.insert(all.end(), batch.begin(), batch.end());
        return all;
    }

    std::vector<std::vector<StreamEvent>> batches() const
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        return m_batches;
    }

    std::vector<QThread*> threads() const
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        return m_threads;
    }

    void clear()
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        m_batches.clear();
        m_threads.clear();
    }

    void markStopReturned() { m_stopReturned.store(true); }
    bool calledAfterStop() const
    {
        std::lock_guard<std::mutex> locked(m_mutex);
        return m_calledAfterStop;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::vector<StreamEvent>> m_batches;
    std::vector<QThread*> m_threads;
    std::atomic<bool> m_stopReturned{false};
    bool m_calledAfterStop = false;
};

void stayQuiet()
{
    runEventLoopUntil([] { return false; }, kQuietMs);
}

void renamePath(const fs::path& from, const fs::path& to)
{
    ASSERT_EQ(std::rename(from.c_str(), to.c_str()), 0) << from << " -> " << to;
}

template<typename Backend>
class EventStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TreeBuilder::writeFile(m_root / "Docs" / "existing.txt", "old");
        TreeBuilder::makeFolder(m_root / "Other");
        TreeBuilder::makeFolder(m_outside);
    }

    std::unique_ptr<EventStream> makeStream()
    {
        return Backend::make({qtPath(m_root)}, m_recorder.callback());
    }

    void startStream()
    {
        m_stream = makeStream();
        ASSERT_TRUE(m_stream);
        m_stream->scheduleWithThread(QThread::currentThread());
        ASSERT_TRUE(m_stream->start());
    }

    TestHome m_home;
    fs::path m_root = m_home.path() / "Mobile Documents";
    fs::path m_outside = m_home.path() / "Outside";
    Recorder m_recorder;
    std::unique_ptr<EventStream> m_stream;
};

struct BackendNames {
    template<typename Backend>
    static std::string GetName(int)
    {
        return std::is_same_v<Backend, InotifyBackend> ? "Inotify" : "Polling";
    }
};

using Backends = ::testing::Types<InotifyBackend, PollingBackend>;
TYPED_TEST_SUITE(EventStreamTest, Backends, BackendNames);

TYPED_TEST(EventStreamTest, ReportsTheFolderOfACreatedFile)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
}

TYPED_TEST(EventStreamTest, ReportsTheFolderOfAChangedFile)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "existing.txt", "changed, and longer");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
    EXPECT_FALSE(this->m_recorder.has(this->m_root / "Other"));
}

TYPED_TEST(EventStreamTest, ReportsTheFolderOfADeletedFile)
{
    this->startStream();
    fs::remove(this->m_root / "Docs" / "existing.txt");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
}

// The latency runs from the first change on: a folder that keeps changing is still reported.
TYPED_TEST(EventStreamTest, CoalescesPerFolderWithoutWaitingForQuiet)
{
    this->startStream();
    QDeadlineTimer trickle(2000);
    for (int i = 0; !this->m_recorder.has(this->m_root / "Docs") && !trickle.hasExpired(); ++i) {
        TreeBuilder::writeFile(this->m_root / "Docs" / ("trickle-" + std::to_string(i)), "drop");
        runEventLoopUntil([&] { return this->m_recorder.has(this->m_root / "Docs"); }, 10);
    }
    EXPECT_TRUE(this->m_recorder.has(this->m_root / "Docs")) << "held back while the changes went on";
    for (const auto& batch : this->m_recorder.batches()) {
        std::set<QByteArray> paths;
        for (const StreamEvent& event : batch)
            EXPECT_TRUE(paths.insert(event.nativePath).second) << "twice: " << event.nativePath.data();
    }
}

TYPED_TEST(EventStreamTest, DoesNotStartWithoutAnyRoot)
{
    this->m_stream = TypeParam::make({qtPath(this->m_home.path() / "Missing")}, this->m_recorder.callback());
    this->m_stream->scheduleWithThread(QThread::currentThread());
    EXPECT_FALSE(this->m_stream->start());
    const QString description = this->m_stream->copyDescription();
    EXPECT_TRUE(description.contains("stopped")) << description.toStdString();
}

TYPED_TEST(EventStreamTest, ReportsAFileRenamedWithinItsFolder)
{
    this->startStream();
    renamePath(this->m_root / "Docs" / "existing.txt", this->m_root / "Docs" / "renamed.txt");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
}

TYPED_TEST(EventStreamTest, ReportsBothFoldersOfAFileMovedAcross)
{
    this->startStream();
    renamePath(this->m_root / "Docs" / "existing.txt", this->m_root / "Other" / "moved.txt");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Other"));
}

TYPED_TEST(EventStreamTest, ReportsChangesToTheRootItselfAsTheRoot)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "top.txt", "top");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root));
    for (const StreamEvent& event : this->m_recorder.events())
        EXPECT_EQ(event.flags & EventStreamFlags::kRootChanged, 0u);
}

// The file is written before the stream can have a watch on its brand-new folders.
TYPED_TEST(EventStreamTest, ReportsAFileMadeAtOnceInANewSubFolder)
{
    this->startStream();
    const fs::path deepest = this->m_root / "New" / "Deeper" / "Deepest";
    TreeBuilder::writeFile(deepest / "straight-away.txt", "now");
    EXPECT_TRUE(this->m_recorder.waitFor(deepest));
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root));

    this->m_recorder.clear();
    TreeBuilder::writeFile(deepest / "later.txt", "later");
    EXPECT_TRUE(this->m_recorder.waitFor(deepest));
}

TYPED_TEST(EventStreamTest, WatchesAFolderMovedIntoTheTree)
{
    TreeBuilder::writeFile(this->m_outside / "Bundle" / "Inner" / "inside.txt", "in");
    this->startStream();
    renamePath(this->m_outside / "Bundle", this->m_root / "Docs" / "Bundle");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));

    this->m_recorder.clear();
    TreeBuilder::writeFile(this->m_root / "Docs" / "Bundle" / "Inner" / "added.txt", "added");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs" / "Bundle" / "Inner"));
}

TYPED_TEST(EventStreamTest, ForgetsAFolderMovedOutOfTheTree)
{
    this->startStream();
    renamePath(this->m_root / "Docs", this->m_outside / "Docs");
    ASSERT_TRUE(this->m_recorder.waitFor(this->m_root));

    this->m_recorder.clear();
    TreeBuilder::writeFile(this->m_outside / "Docs" / "elsewhere.txt", "gone");
    TreeBuilder::writeFile(this->m_root / "Other" / "control.txt", "control");
    ASSERT_TRUE(this->m_recorder.waitFor(this->m_root / "Other"));
    EXPECT_FALSE(this->m_recorder.has(this->m_root / "Docs"));
    EXPECT_FALSE(this->m_recorder.has(this->m_outside / "Docs"));
}

TYPED_TEST(EventStreamTest, ReportsARenamedFolderUnderItsNewPath)
{
    this->startStream();
    renamePath(this->m_root / "Docs", this->m_root / "Papers");
    ASSERT_TRUE(this->m_recorder.waitFor(this->m_root));

    this->m_recorder.clear();
    TreeBuilder::writeFile(this->m_root / "Papers" / "note.txt", "note");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Papers"));
    EXPECT_FALSE(this->m_recorder.has(this->m_root / "Docs"));
}

TYPED_TEST(EventStreamTest, FlagsTheRootWhenItIsRenamed)
{
    this->startStream();
    renamePath(this->m_root, this->m_home.path() / "Renamed");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root, EventStreamFlags::kRootChanged));
}

TYPED_TEST(EventStreamTest, FlagsTheRootWhenItIsDeleted)
{
    this->startStream();
    TreeBuilder::removeTree(this->m_root);
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root, EventStreamFlags::kRootChanged));
}

TYPED_TEST(EventStreamTest, DeliversNothingQueuedBeforeStop)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "pending.txt", "pending");
    this->m_stream->flushAsync();
    this->m_stream->stop();
    this->m_recorder.markStopReturned();
    stayQuiet();
    EXPECT_TRUE(this->m_recorder.events().empty());
}

TYPED_TEST(EventStreamTest, DropsWhatItHeldBackWhenStopped)
{
    if constexpr (!TypeParam::kHoldsEventsBack)
        GTEST_SKIP() << "this backend holds nothing back";
    this->m_stream = TypeParam::make({qtPath(this->m_root)}, this->m_recorder.callback(), 0.25);
    this->m_stream->scheduleWithThread(QThread::currentThread());
    ASSERT_TRUE(this->m_stream->start());
    TreeBuilder::writeFile(this->m_root / "Docs" / "pending.txt", "pending");
    ASSERT_TRUE(runEventLoopUntil([&] { return this->m_stream->copyDescription().contains("pending = 1"); }));
    this->m_stream->stop();
    stayQuiet(); // longer than the latency
    ASSERT_TRUE(this->m_stream->start());
    this->m_stream->flushSync();
    EXPECT_TRUE(this->m_recorder.events().empty());
}

TYPED_TEST(EventStreamTest, DeliversNothingAfterStopFromAnotherThread)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "pending.txt", "pending");
    this->m_stream->flushAsync();
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        this->m_stream->stop();
        this->m_recorder.markStopReturned();
        stopped = true;
    });
    EXPECT_TRUE(runEventLoopUntil([&] { return stopped.load(); }, kBoundMs));
    stopper.join();
    TreeBuilder::writeFile(this->m_root / "Docs" / "after.txt", "after");
    stayQuiet();
    EXPECT_FALSE(this->m_recorder.calledAfterStop());
}

TYPED_TEST(EventStreamTest, StartingTwiceIsHarmless)
{
    this->startStream();
    const QString description = this->m_stream->copyDescription();
    EXPECT_TRUE(this->m_stream->start());
    EXPECT_EQ(this->m_stream->copyDescription(), description);
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));

    this->m_stream->stop();
    this->m_recorder.markStopReturned();
    TreeBuilder::writeFile(this->m_root / "Docs" / "after.txt", "after");
    stayQuiet();
    EXPECT_FALSE(this->m_recorder.calledAfterStop());
}

TYPED_TEST(EventStreamTest, StoppingWhenIdleIsHarmless)
{
    this->m_stream = this->makeStream();
    this->m_stream->stop();
    this->m_stream->scheduleWithThread(QThread::currentThread());
    this->m_stream->stop();
    this->m_stream->stop();
    ASSERT_TRUE(this->m_stream->start());
    this->m_stream->stop();
    ASSERT_TRUE(this->m_stream->start());
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
    this->m_stream->invalidate();
    this->m_stream->invalidate();
    EXPECT_FALSE(this->m_stream->start());
}

TYPED_TEST(EventStreamTest, FlushSyncDeliversPendingEventsBeforeItReturns)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    this->m_stream->flushSync();
    EXPECT_TRUE(this->m_recorder.has(this->m_root / "Docs"));
}

TYPED_TEST(EventStreamTest, FlushSyncFromAnotherThreadWaitsForTheCallback)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Other" / "new.txt", "new");
    std::atomic<bool> flushed{false};
    std::atomic<bool> deliveredBeforeReturn{false};
    std::thread flusher([&] {
        this->m_stream->flushSync();
        deliveredBeforeReturn = this->m_recorder.has(this->m_root / "Other");
        flushed = true;
    });
    EXPECT_TRUE(runEventLoopUntil([&] { return flushed.load(); }, kBoundMs));
    flusher.join();
    EXPECT_TRUE(deliveredBeforeReturn.load());
}

TYPED_TEST(EventStreamTest, FlushAsyncDeliversSoon)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    this->m_stream->flushAsync();
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
}

TYPED_TEST(EventStreamTest, IdsOnlyGrow)
{
    this->startStream();
    for (const char* folder : {"Docs", "Other", "Docs", "Third"}) {
        TreeBuilder::writeFile(this->m_root / folder / "file.txt", std::string("content of ") + folder);
        TreeBuilder::writeFile(this->m_root / "Other" / folder, folder);
        ASSERT_TRUE(this->m_recorder.waitFor(this->m_root / folder));
        this->m_stream->flushSync();
    }
    const std::vector<StreamEvent> events = this->m_recorder.events();
    ASSERT_GE(events.size(), 3u);
    for (std::size_t i = 1; i < events.size(); ++i)
        EXPECT_LT(events[i - 1].id, events[i].id) << "event " << i;
}

TYPED_TEST(EventStreamTest, ReportsFoldersNamedInBytesThatAreNotUtf8Exactly)
{
    const fs::path existing = this->m_root / std::string("caf\xe9");
    TreeBuilder::makeFolder(existing);
    this->startStream();
    TreeBuilder::writeFile(existing / "file.txt", "latin-1");
    const fs::path created = this->m_root / std::string("new \xff\xfe folder");
    TreeBuilder::writeFile(created / "file.txt", "invalid");
    EXPECT_TRUE(this->m_recorder.waitFor(existing));
    EXPECT_TRUE(this->m_recorder.waitFor(created));
    for (const StreamEvent& event : this->m_recorder.events())
        EXPECT_EQ(event.path, QFile::decodeName(event.nativePath));
}

TYPED_TEST(EventStreamTest, DoesNotFollowALinkToAFolderOutsideTheTree)
{
    TreeBuilder::makeSymlink(this->m_outside.string(), this->m_root / "Link");
    this->startStream();
    TreeBuilder::writeFile(this->m_outside / "outside.txt", "outside");
    TreeBuilder::writeFile(this->m_root / "Docs" / "control.txt", "control");
    ASSERT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
    this->m_stream->flushSync();
    EXPECT_FALSE(this->m_recorder.has(this->m_root / "Link"));
    EXPECT_FALSE(this->m_recorder.has(this->m_outside));
}

TYPED_TEST(EventStreamTest, WatchesFoldersDeeperThanPathMax)
{
    const std::string name(50, 'd');
    const int deepestFd = TreeBuilder::makeDeepChain(this->m_root, name.c_str(), 100);
    ASSERT_GE(deepestFd, 0);
    fs::path deepest = this->m_root;
    for (int i = 0; i < 100; ++i)
        deepest /= name;
    this->startStream();
    const int file = ::openat(deepestFd, "deep.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ::close(deepestFd);
    ASSERT_GE(file, 0);
    ASSERT_EQ(::write(file, "deep", 4), 4);
    ::close(file);
    EXPECT_TRUE(this->m_recorder.waitFor(deepest));
}

TYPED_TEST(EventStreamTest, DescribesBackendPathsAndCoverage)
{
    this->startStream();
    const QString description = this->m_stream->copyDescription();
    EXPECT_TRUE(description.contains(std::is_same_v<TypeParam, InotifyBackend> ? "inotify" : "polling"))
        << description.toStdString();
    EXPECT_TRUE(description.contains(qtPath(this->m_root))) << description.toStdString();
    EXPECT_TRUE(description.contains("running")) << description.toStdString();
    EXPECT_TRUE(description.contains("3 folders")) << description.toStdString();
    EXPECT_FALSE(description.contains("not watched")) << description.toStdString();
}

TYPED_TEST(EventStreamTest, CallsBackOnTheScheduledThreadOnly)
{
    QThread worker;
    worker.start();
    this->m_stream = this->makeStream();
    this->m_stream->scheduleWithThread(&worker);
    ASSERT_TRUE(this->m_stream->start());
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));
    TreeBuilder::writeFile(this->m_root / "Other" / "new.txt", "new");
    this->m_stream->flushSync();
    EXPECT_TRUE(this->m_recorder.has(this->m_root / "Other"));
    this->m_stream->stop();
    this->m_recorder.markStopReturned();
    TreeBuilder::writeFile(this->m_root / "Docs" / "after.txt", "after");
    stayQuiet();
    this->m_stream.reset();
    worker.quit();
    worker.wait();
    EXPECT_FALSE(this->m_recorder.calledAfterStop());
    for (QThread* thread : this->m_recorder.threads())
        EXPECT_EQ(thread, &worker);
}

// The way the folder watcher drives it: every call from a private queue, delivery on the main thread.
TYPED_TEST(EventStreamTest, RunsCallsFromAnotherThreadOnTheScheduledOne)
{
    std::atomic<bool> started{false};
    std::thread caller([&] {
        this->m_stream = this->makeStream();
        this->m_stream->scheduleWithThread(QCoreApplication::instance()->thread());
        started = this->m_stream->start();
    });
    // The caller hands work to this thread and waits, so this thread must keep its loop running.
    ASSERT_TRUE(runEventLoopUntil([&] { return started.load(); }, kBoundMs));
    caller.join();
    TreeBuilder::writeFile(this->m_root / "Docs" / "new.txt", "new");
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root / "Docs"));

    std::atomic<bool> released{false};
    std::thread releaser([&] {
        this->m_stream->stop();
        this->m_recorder.markStopReturned();
        this->m_stream->unscheduleFromThread(QCoreApplication::instance()->thread());
        this->m_stream->invalidate();
        this->m_stream.reset();
        released = true;
    });
    EXPECT_TRUE(runEventLoopUntil([&] { return released.load(); }, kBoundMs));
    releaser.join();
    stayQuiet();
    EXPECT_FALSE(this->m_recorder.calledAfterStop());
    for (QThread* thread : this->m_recorder.threads())
        EXPECT_EQ(thread, QThread::currentThread());
}

TYPED_TEST(EventStreamTest, DestroyingWithEventsPendingIsQuiet)
{
    this->startStream();
    TreeBuilder::writeFile(this->m_root / "Docs" / "pending.txt", "pending");
    this->m_stream->flushAsync();
    this->m_stream.reset();
    stayQuiet();
    EXPECT_TRUE(this->m_recorder.events().empty());
}

class InotifyEventStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* folder : {"A", "B", "C", "D", "E"})
            TreeBuilder::writeFile(m_root / folder / "file.txt", folder);
    }

    TestHome m_home;
    fs::path m_root = m_home.path() / "Mobile Documents";
    Recorder m_recorder;
};

TEST_F(InotifyEventStreamTest, KeepsReportingWhatIsWatchedWhenWatchesRunOut)
{
    auto stream
        = InotifyBackend::make({qtPath(m_root)}, m_recorder.callback(), 0.05, InotifyEventStream::Limits{3});
    ASSERT_TRUE(stream);
    stream->scheduleWithThread(QThread::currentThread());
    ASSERT_TRUE(stream->start());
    const QString description = stream->copyDescription();
    EXPECT_TRUE(description.contains("3 folders watched")) << description.toStdString();
    EXPECT_TRUE(description.contains("3 folders not watched")) << description.toStdString();
    EXPECT_TRUE(description.contains(qtPath(m_root) + "/")) << description.toStdString();
    EXPECT_TRUE(description.contains("watch limit")) << description.toStdString();

    // The root is always the first folder watched.
    TreeBuilder::writeFile(m_root / "top.txt", "top");
    EXPECT_TRUE(m_recorder.waitFor(m_root));
    TreeBuilder::writeFile(m_root / "F" / "file.txt", "F");
    EXPECT_TRUE(m_recorder.waitFor(m_root / "F")) << "the rescan of a new folder works without its watch";
    EXPECT_TRUE(stream->copyDescription().contains("4 folders not watched"))
        << stream->copyDescription().toStdString();
}

// Sets the kernel's queue size for the inotify instances made while it lives, and puts it back.
class QueueSizeOverride {
public:
    explicit QueueSizeOverride(const std::string& size)
    {
        std::ifstream in(kQueueSizeKnob);
        in >> m_original;
        if (m_original.empty())
            return;
        // Nobody sets it this low on purpose: a run killed in the window left it so. Back to the default.
        if (std::stoll(m_original) < kSaneQueueSize)
            m_original = std::to_string(kDefaultQueueSize);
        std::ofstream out(kQueueSizeKnob);
        out << size;
        out.flush();
        m_applied = static_cast<bool>(out);
    }
    ~QueueSizeOverride()
    {
        if (m_original.empty())
            return;
        std::ofstream out(kQueueSizeKnob);
        out << m_original;
    }
    QueueSizeOverride(const QueueSizeOverride&) = delete;
    QueueSizeOverride& operator=(const QueueSizeOverride&) = delete;

    bool applied() const { return m_applied; }

private:
    std::string m_original;
    bool m_applied = false;
};

TEST_F(InotifyEventStreamTest, AsksForARescanWhenTheKernelQueueOverflows)
{
    std::unique_ptr<InotifyEventStream> stream;
    {
        InotifyCreationLock exclusive(LOCK_EX);
        QueueSizeOverride tinyQueue("4");
        if (!tinyQueue.applied())
            GTEST_SKIP() << kQueueSizeKnob << " cannot be written here";
        stream = InotifyEventStream::create({qtPath(m_root)}, 0.05, m_recorder.callback());
    }
    ASSERT_TRUE(stream);
    stream->scheduleWithThread(QThread::currentThread());
    ASSERT_TRUE(stream->start());
    for (int i = 0; i < 40; ++i)
        TreeBuilder::writeFile(m_root / "A" / ("flood-" + std::to_string(i)), "flood");
    TreeBuilder::writeFile(m_root / "Late" / "missed.txt", "missed");
    EXPECT_TRUE(
        m_recorder.waitFor(m_root, EventStreamFlags::kMustScanSubDirs | EventStreamFlags::kKernelDropped));

    // The folder made while events were being dropped is watched after the rescan.
    m_recorder.clear();
    TreeBuilder::writeFile(m_root / "Late" / "seen.txt", "seen");
    EXPECT_TRUE(m_recorder.waitFor(m_root / "Late"));
}

TEST(EventStreamCreateTest, FallsBackToPollingWhenInotifyCannotStart)
{
    TestHome home;
    struct rlimit original {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
    // The lowest free descriptor becomes the limit: nothing more can be opened.
    const int lowestFree = ::dup(0);
    ASSERT_GE(lowestFree, 0);
    ::close(lowestFree);
    struct rlimit exhausted = original;
    exhausted.rlim_cur = static_cast<rlim_t>(lowestFree);
    std::unique_ptr<EventStream> stream;
    {
        InotifyCreationLock lock(LOCK_SH);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
        stream = EventStream::create({qtPath(home.path())}, EventStream::kSinceNow, 0.05, {});
        ::setrlimit(RLIMIT_NOFILE, &original);
    }
    ASSERT_TRUE(stream);
    EXPECT_TRUE(stream->copyDescription().startsWith("polling")) << stream->copyDescription().toStdString();
}

TEST(EventStreamCreateTest, PrefersInotify)
{
    TestHome home;
    auto stream = EventStream::create({qtPath(home.path())}, EventStream::kSinceNow, 0.05, {});
    ASSERT_TRUE(stream);
    EXPECT_TRUE(stream->copyDescription().startsWith("inotify")) << stream->copyDescription().toStdString();
}

} // namespace
