#include "platform/EventStream.h"
#include "platform/InotifyEventStream.h"
#include "platform/PollingEventStream.h"
#include "support/EventLoop.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"
#include <mutex>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr int kBoundMs = 5000;
// How long a test looks for events that must not come. Not a wait for an event: nothing ends it early.
constexpr int kQuietMs = 300;
constexpr const char* kQueueSizeKnob = "/proc/sys/fs/inotify/max_queued_events";

QString qtPath(const fs::path& path)
{
    return QFile::decodeName(QByteArray::fromStdString(path.string()));
}

// The overflow test shrinks the kernel's event queue for every inotify instance made meanwhile; holding
// this lock around each creation keeps the other tests (and other copies of this suite) out of it.
struct InotifyCreationLock {
    explicit InotifyCreationLock(int operation) { ::flock(fd, operation); }
    ~InotifyCreationLock() { ::close(fd); }
    int fd = ::open("/tmp/pelmora-eventstream-tests.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
};

struct InotifyBackend {
    static std::unique_ptr<EventStream> make(const QStringList& paths, EventStream::Callback callback,
                                             double latencySeconds = 0.05,
                                             InotifyEventStream::Limits limits = {})
    {
        InotifyCreationLock lock(LOCK_SH);
        return InotifyEventStream::create(paths, latencySeconds, std::move(callback), limits);
    }
};

struct PollingBackend {
    static std::unique_ptr<EventStream> make(const QStringList& paths, EventStream::Callback callback,
                                             double latencySeconds = 1.0)
    {
        return std::make_unique<PollingEventStream>(paths, latencySeconds, std::move(callback), 50ms);
    }
};

// Events as the callback saw them. The callback may run on another thread: read the fields directly only
// once it cannot run any more.
struct Recorder {
    EventStream::Callback callback()
    {
        return [this](const QList<StreamEvent>& batch) {
            std::lock_guard<std::mutex> locked(mutex);
            calledAfterStop = calledAfterStop || stopReturned.load();
            threads.push_back(QThread::currentThread());
            // Changes are coalesced per folder: no folder comes twice in one batch.
            std::set<QByteArray> folders;
            for (const StreamEvent& event : batch)
                EXPECT_TRUE(folders.insert(event.nativePath).second) << "twice: " << event.nativePath.data();
            events.insert(events.end(), batch.begin(), batch.end());
        };
    }
    bool has(const fs::path& folder, std::uint32_t flags = EventStreamFlags::kNone)
    {
        std::lock_guard<std::mutex> locked(mutex);
        return std::any_of(events.begin(), events.end(), [&](const StreamEvent& event) {
            return event.nativePath.toStdString() == folder.string() && (event.flags & flags) == flags;
        });
    }
    bool waitFor(const fs::path& folder, std::uint32_t flags = EventStreamFlags::kNone)
    {
        return runEventLoopUntil([&] { return has(folder, flags); }, kBoundMs);
    }
    // Forgets what was delivered, and any stop: for the next step of a test.
    void clear()
    {
        std::lock_guard<std::mutex> locked(mutex);
        events.clear();
        threads.clear();
        stopReturned = calledAfterStop = false;
    }

    std::mutex mutex;
    std::vector<StreamEvent> events;
    std::vector<QThread*> threads;
    std::atomic<bool> stopReturned{false};
    bool calledAfterStop = false;
};

void stayQuiet()
{
    runEventLoopUntil([] { return false; }, kQuietMs);
}

void expectContainsAll(const QString& text, const QStringList& parts)
{
    for (const QString& part : parts)
        EXPECT_TRUE(text.contains(part)) << "no \"" << part.toStdString() << "\" in " << text.toStdString();
}

template<typename Backend>
class EventStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TreeBuilder::writeFile(m_docs / "existing.txt", "old");
        TreeBuilder::makeFolder(m_other);
        TreeBuilder::makeFolder(m_outside);
    }

    auto makeStream() { return Backend::make({qtPath(m_root)}, m_recorder.callback()); }
    // Whether the stream started; it is kept in m_stream either way.
    bool startStream(std::unique_ptr<EventStream> stream, QThread* thread = QThread::currentThread())
    {
        m_stream = std::move(stream);
        if (!m_stream)
            return false;
        m_stream->scheduleWithThread(thread);
        return m_stream->start();
    }
    bool startStream() { return startStream(makeStream()); }
    // Delivers and forgets what came before, so that a step sees its own events only; then makes the
    // change and expects each of `folders` reported.
    void step(const std::function<void()>& change, const std::set<fs::path>& folders,
              std::uint32_t flags = EventStreamFlags::kNone)
    {
        m_stream->flushSync();
        m_recorder.clear();
        change();
        for (const fs::path& folder : folders)
            EXPECT_TRUE(m_recorder.waitFor(folder, flags)) << folder;
    }
    // Stops (or destroys) the stream, then makes a change that must not be delivered.
    void stopAndChange(bool destroy = false)
    {
        destroy ? m_stream.reset() : m_stream->stop();
        m_recorder.stopReturned = true;
        TreeBuilder::writeFile(m_docs / "after.txt", "after");
        stayQuiet();
    }

    TestHome m_home;
    fs::path m_root = m_home.path() / "Mobile Documents";
    fs::path m_docs = m_root / "Docs";
    fs::path m_other = m_root / "Other";
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

// A change is reported as the folder that holds the changed entry, along with each folder new to the tree
// that holds something, and nothing else. Folders are followed as they come, are renamed and go; a link to
// a folder outside the tree is not.
TYPED_TEST(EventStreamTest, ReportsTheFolderOfEachChange)
{
    const fs::path &root = this->m_root, &docs = this->m_docs, &other = this->m_other, &out = this->m_outside;
    const fs::path latin1 = root / std::string("caf\xe9"), invalid = root / std::string("new \xff\xfe one");
    const fs::path newest = root / "New" / "Deeper" / "Deepest", inner = docs / "Bundle" / "Inner";
    const fs::path papers = root / "Papers";
    TreeBuilder::makeFolder(latin1);
    TreeBuilder::writeFile(out / "Bundle" / "Inner" / "inside.txt", "in");
    TreeBuilder::makeSymlink(out.string(), root / "Link");
    // Deeper than PATH_MAX: reachable through descriptors only.
    const std::string name(50, 'd');
    const int deepestFd = TreeBuilder::makeDeepChain(root, name.c_str(), 100);
    ASSERT_GE(deepestFd, 0);
    fs::path deepest = root;
    for (int i = 0; i < 100; ++i)
        deepest /= name;
    const auto writeDeepest = [&] {
        const int file = ::openat(deepestFd, "deep.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        EXPECT_EQ(::write(file, "deep", 4), 4);
        ::close(file);
    };
    const auto write = [](const fs::path& file) {
        return [file] { TreeBuilder::writeFile(file, file.filename().string() + " written"); };
    };
    const auto move = [](const fs::path& from, const fs::path& to) { return [=] { fs::rename(from, to); }; };
    const struct {
        const char* name;
        std::function<void()> change;
        std::set<fs::path> folders;
    } steps[] = {
        {"created", write(docs / "new.txt"), {docs}},
        {"changed", write(docs / "existing.txt"), {docs}},
        {"renamed within", move(docs / "existing.txt", docs / "renamed.txt"), {docs}},
        {"moved across", move(docs / "renamed.txt", other / "moved.txt"), {docs, other}},
        {"deleted", [&] { fs::remove(other / "moved.txt"); }, {other}},
        {"in the root itself", write(root / "top.txt"), {root}},
        {"named in Latin-1", write(latin1 / "file.txt"), {latin1}},
        {"new, named in bytes that are not UTF-8", write(invalid / "file.txt"), {root, invalid}},
        {"deeper than PATH_MAX", writeDeepest, {deepest}},
        // The file is written before the stream can have a watch on its brand-new folders.
        {"new folders", write(newest / "now.txt"), {root, root / "New", newest.parent_path(), newest}},
        {"in the new folders later", write(newest / "later.txt"), {newest}},
        {"folder moved in", move(out / "Bundle", docs / "Bundle"), {docs, docs / "Bundle", inner}},
        {"in the folder moved in", write(inner / "added.txt"), {inner}},
        {"folder renamed", move(docs, papers), {root, papers, papers / "Bundle", papers / "Bundle/Inner"}},
        {"in the renamed folder", write(papers / "note.txt"), {papers}},
        {"folder moved out", move(papers, out / "Papers"), {root}},
        {"outside, through a link and in the moved-out folder",
         [&] {
             write(out / "Papers" / "elsewhere.txt")();
             write(out / "outside.txt")();
             write(other / "control.txt")();
         },
         {other}},
    };
    ASSERT_TRUE(this->startStream());
    std::vector<std::uint64_t> ids;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        this->step(step.change, step.folders);
        this->m_stream->flushSync();
        for (const StreamEvent& event : this->m_recorder.events) {
            EXPECT_EQ(step.folders.count(event.nativePath.toStdString()), 1u) << event.nativePath.data();
            EXPECT_EQ(event.path, QFile::decodeName(event.nativePath));
            EXPECT_EQ(event.flags & EventStreamFlags::kRootChanged, 0u);
            ids.push_back(event.id);
        }
    }
    ::close(deepestFd);
    // Within a batch and from one batch to the next.
    for (std::size_t i = 1; i < ids.size(); ++i)
        EXPECT_LT(ids[i - 1], ids[i]) << "ids only grow; event " << i;
}

// The latency runs from the first change on: a folder that keeps changing is still reported.
TYPED_TEST(EventStreamTest, CoalescesPerFolderWithoutWaitingForQuiet)
{
    ASSERT_TRUE(this->startStream());
    QDeadlineTimer trickle(2000);
    for (int i = 0; !this->m_recorder.has(this->m_docs) && !trickle.hasExpired(); ++i) {
        TreeBuilder::writeFile(this->m_docs / ("trickle-" + std::to_string(i)), "drop");
        runEventLoopUntil([&] { return this->m_recorder.has(this->m_docs); }, 10);
    }
    EXPECT_TRUE(this->m_recorder.has(this->m_docs)) << "held back while the changes went on";
}

TYPED_TEST(EventStreamTest, FlagsTheRootWhenItIsRenamedOrDeleted)
{
    const fs::path &root = this->m_root, renamed = this->m_home.path() / "Renamed";
    ASSERT_TRUE(this->startStream());
    this->step([&] { fs::rename(root, renamed); }, {root}, EventStreamFlags::kRootChanged);
    fs::rename(renamed, root);
    ASSERT_TRUE(this->startStream());
    this->step([&] { TreeBuilder::removeTree(root); }, {root}, EventStreamFlags::kRootChanged);
}

// What was queued or held back is not delivered once stop() has returned or the stream is gone.
TYPED_TEST(EventStreamTest, DeliversNothingOnceStoppedOrDestroyed)
{
    for (const bool destroy : {false, true}) {
        SCOPED_TRACE(destroy ? "destroyed" : "stopped");
        ASSERT_TRUE(this->startStream());
        this->m_recorder.clear();
        TreeBuilder::writeFile(this->m_docs / "pending.txt", destroy ? "destroy" : "stop");
        this->m_stream->flushAsync();
        this->stopAndChange(destroy);
        EXPECT_TRUE(this->m_recorder.events.empty());
    }
    // What a poll finds is delivered at once; inotify holds changes back for the latency.
    if constexpr (std::is_same_v<TypeParam, InotifyBackend>) {
        const QStringList paths{qtPath(this->m_root)};
        ASSERT_TRUE(this->startStream(TypeParam::make(paths, this->m_recorder.callback(), 0.25)));
        this->m_recorder.clear();
        TreeBuilder::writeFile(this->m_docs / "pending.txt", "held back");
        const auto pending = [&] { return this->m_stream->copyDescription().contains("pending = 1"); };
        ASSERT_TRUE(runEventLoopUntil(pending));
        this->m_stream->stop();
        stayQuiet(); // longer than the latency
        ASSERT_TRUE(this->m_stream->start());
        this->m_stream->flushSync();
        EXPECT_TRUE(this->m_recorder.events.empty()) << "held back before the stop, delivered after a start";
    }
}

TYPED_TEST(EventStreamTest, ControlCallsAreHarmlessInAnyStateAndFlushesDeliver)
{
    this->m_stream = this->makeStream();
    this->m_stream->stop();
    this->m_stream->scheduleWithThread(QThread::currentThread());
    this->m_stream->stop();
    this->m_stream->stop();
    ASSERT_TRUE(this->m_stream->start());
    this->m_stream->stop();
    ASSERT_TRUE(this->m_stream->start());
    const QString description = this->m_stream->copyDescription();
    EXPECT_TRUE(this->m_stream->start());
    EXPECT_EQ(this->m_stream->copyDescription(), description);
    TreeBuilder::writeFile(this->m_docs / "new.txt", "new");
    this->m_stream->flushSync();
    EXPECT_TRUE(this->m_recorder.has(this->m_docs)) << "flushSync returned before the callback had them";
    TreeBuilder::writeFile(this->m_root / "top.txt", "top");
    this->m_stream->flushAsync();
    EXPECT_TRUE(this->m_recorder.waitFor(this->m_root));
    this->stopAndChange();
    EXPECT_FALSE(this->m_recorder.calledAfterStop) << "one stop ends a stream started twice";

    ASSERT_TRUE(this->m_stream->start());
    this->m_stream->invalidate();
    this->m_stream->invalidate();
    EXPECT_FALSE(this->m_stream->start());
}

TYPED_TEST(EventStreamTest, DescribesBackendPathsStateAndCoverage)
{
    const QStringList missing{qtPath(this->m_home.path() / "Missing")};
    EXPECT_FALSE(this->startStream(TypeParam::make(missing, this->m_recorder.callback())));
    ASSERT_TRUE(this->m_stream);
    expectContainsAll(this->m_stream->copyDescription(), {"stopped"});

    ASSERT_TRUE(this->startStream());
    const QString description = this->m_stream->copyDescription();
    expectContainsAll(description, {std::is_same_v<TypeParam, InotifyBackend> ? "inotify" : "polling",
                                    qtPath(this->m_root), "running", "3 folders"});
    EXPECT_FALSE(description.contains("not watched")) << description.toStdString();
}

// Delivery is on the scheduled thread only, whichever thread makes the calls: a worker of its own, or the
// main thread with every call from a private queue, the way the folder watcher drives it.
TYPED_TEST(EventStreamTest, CallsBackOnTheScheduledThreadOnly)
{
    for (const bool onWorker : {true, false}) {
        SCOPED_TRACE(onWorker ? "scheduled on a worker" : "called from another thread");
        QThread worker;
        if (onWorker)
            worker.start();
        QThread* const scheduled = onWorker ? &worker : QCoreApplication::instance()->thread();
        // On another thread, the calls hand work to the scheduled one and wait: its loop must keep running.
        const auto call = [&](const std::function<void()>& work) {
            if (onWorker)
                return work();
            const auto caller = std::async(std::launch::async, work);
            const auto returned = [&] { return caller.wait_for(0s) == std::future_status::ready; };
            EXPECT_TRUE(runEventLoopUntil(returned, kBoundMs));
        };
        this->m_recorder.clear();
        bool started = false;
        call([&] { started = this->startStream(this->makeStream(), scheduled); });
        ASSERT_TRUE(started);
        this->step([&] { TreeBuilder::writeFile(this->m_docs / "new.txt", "new"); }, {this->m_docs});

        bool deliveredBeforeReturn = false;
        TreeBuilder::writeFile(this->m_other / "new.txt", "new");
        call([&] {
            this->m_stream->flushSync();
            deliveredBeforeReturn = this->m_recorder.has(this->m_other);
        });
        EXPECT_TRUE(deliveredBeforeReturn) << "flushSync returned before the callback had the events";

        // A delivery already queued on the scheduled thread must not run once stop() has returned.
        TreeBuilder::writeFile(this->m_docs / "pending.txt", "pending");
        this->m_stream->flushAsync();
        call([&] {
            this->m_stream->stop();
            this->m_recorder.stopReturned = true;
        });
        TreeBuilder::writeFile(this->m_docs / "after.txt", "after");
        stayQuiet();
        call([&] {
            this->m_stream->unscheduleFromThread(scheduled);
            this->m_stream->invalidate();
            this->m_stream.reset();
        });
        worker.quit();
        worker.wait();
        EXPECT_FALSE(this->m_recorder.calledAfterStop);
        for (QThread* thread : this->m_recorder.threads)
            EXPECT_EQ(thread, scheduled);
    }
}

using InotifyEventStreamTest = EventStreamTest<InotifyBackend>;

TEST_F(InotifyEventStreamTest, KeepsReportingWhatIsWatchedWhenWatchesRunOut)
{
    for (const char* folder : {"A", "B", "C"})
        TreeBuilder::makeFolder(m_root / folder);
    ASSERT_TRUE(startStream(InotifyBackend::make({qtPath(m_root)}, m_recorder.callback(), 0.05, {3})));
    expectContainsAll(m_stream->copyDescription(),
                      {"3 folders watched", "3 folders not watched", qtPath(m_root) + "/", "watch limit"});
    // The root is always the first folder watched.
    step([&] { TreeBuilder::writeFile(m_root / "top.txt", "top"); }, {m_root});
    // The rescan of a new folder works without its watch.
    step([&] { TreeBuilder::writeFile(m_root / "F" / "file.txt", "F"); }, {m_root / "F"});
    expectContainsAll(m_stream->copyDescription(), {"4 folders not watched"});
}

TEST_F(InotifyEventStreamTest, AsksForARescanWhenTheKernelQueueOverflows)
{
    std::unique_ptr<EventStream> stream;
    {
        // The kernel's queue size applies to the instances made while it is set: just this one.
        InotifyCreationLock exclusive(LOCK_EX);
        std::string original;
        std::ifstream(kQueueSizeKnob) >> original;
        // Nobody sets it this low on purpose: a run killed in the window left it so. Back to the default.
        if (!original.empty() && std::stoll(original) < 1024)
            original = "16384";
        if (original.empty() || !(std::ofstream(kQueueSizeKnob) << "4" << std::flush))
            GTEST_SKIP() << kQueueSizeKnob << " cannot be written here";
        stream = InotifyEventStream::create({qtPath(m_root)}, 0.05, m_recorder.callback());
        std::ofstream(kQueueSizeKnob) << original;
    }
    ASSERT_TRUE(startStream(std::move(stream)));
    for (int i = 0; i < 40; ++i)
        TreeBuilder::writeFile(m_docs / ("flood-" + std::to_string(i)), "flood");
    TreeBuilder::writeFile(m_root / "Late" / "missed.txt", "missed");
    EXPECT_TRUE(
        m_recorder.waitFor(m_root, EventStreamFlags::kMustScanSubDirs | EventStreamFlags::kKernelDropped));
    // The folder made while events were being dropped is watched after the rescan.
    step([&] { TreeBuilder::writeFile(m_root / "Late" / "seen.txt", "seen"); }, {m_root / "Late"});
}

TEST(EventStreamCreateTest, PrefersInotifyAndFallsBackToPollingWhenItCannotStart)
{
    TestHome home;
    const auto backendMade = [&] {
        const auto stream = EventStream::create({qtPath(home.path())}, EventStream::kSinceNow, 0.05, {});
        return stream ? stream->copyDescription().section(' ', 0, 0) : QString("nothing");
    };
    EXPECT_EQ(backendMade(), "inotify");

    // The lowest free descriptor becomes the limit: nothing more can be opened.
    struct rlimit original {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
    const int lowestFree = ::dup(0);
    ASSERT_GE(lowestFree, 0);
    ::close(lowestFree);
    const struct rlimit exhausted = {static_cast<rlim_t>(lowestFree), original.rlim_max};
    InotifyCreationLock lock(LOCK_SH);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
    const QString fallback = backendMade();
    ::setrlimit(RLIMIT_NOFILE, &original);
    EXPECT_EQ(fallback, "polling");
}

} // namespace
