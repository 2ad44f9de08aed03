#include "platform/EventStream.h"

#include "platform/InotifyEventStream.h"
#include "platform/PollingEventStream.h"
#include "support/EventLoop.h"
#include "support/QtPrinters.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <QDeadlineTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QThread>
#include <sched.h>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
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

// The changes of a step, made when it runs.
std::function<void()> writes(const fs::path& file)
{
    return [file] { TreeBuilder::writeFile(file, file.filename().string() + " written"); };
}

std::function<void()> moves(const fs::path& from, const fs::path& to)
{
    return [=] { fs::rename(from, to); };
}

// One change and the folders it must be reported for.
struct Step {
    const char* name;
    std::function<void()> change;
    std::set<fs::path> folders;
    std::uint32_t flags = EventStreamFlags::kNone;
};

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
    const Step steps[] = {
        {"created", writes(docs / "new.txt"), {docs}},
        {"changed", writes(docs / "existing.txt"), {docs}},
        {"renamed within", moves(docs / "existing.txt", docs / "renamed.txt"), {docs}},
        {"moved across", moves(docs / "renamed.txt", other / "moved.txt"), {docs, other}},
        {"deleted", [&] { fs::remove(other / "moved.txt"); }, {other}},
        {"in the root itself", writes(root / "top.txt"), {root}},
        {"named in Latin-1", writes(latin1 / "file.txt"), {latin1}},
        {"new, named in bytes that are not UTF-8", writes(invalid / "file.txt"), {root, invalid}},
        {"deeper than PATH_MAX", writeDeepest, {deepest}},
        // The file is written before the stream can have a watch on its brand-new folders.
        {"new folders", writes(newest / "now.txt"), {root, root / "New", newest.parent_path(), newest}},
        {"in the new folders later", writes(newest / "later.txt"), {newest}},
        {"folder moved in", moves(out / "Bundle", docs / "Bundle"), {docs, docs / "Bundle", inner}},
        {"in the folder moved in", writes(inner / "added.txt"), {inner}},
        {"folder renamed", moves(docs, papers), {root, papers, papers / "Bundle", papers / "Bundle/Inner"}},
        {"in the renamed folder", writes(papers / "note.txt"), {papers}},
        {"folder moved out", moves(papers, out / "Papers"), {root}},
        {"outside, through a link and in the moved-out folder",
         [&] {
             writes(out / "Papers" / "elsewhere.txt")();
             writes(out / "outside.txt")();
             writes(other / "control.txt")();
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

// The root is whatever folder is at its path: one that is missing at the start (with the folder above it),
// deleted, moved away or replaced is flagged as changed when it goes and when a folder is there again,
// and the new folder's whole tree is watched from then on.
TYPED_TEST(EventStreamTest, FollowsTheRootThroughWhateverHappensAtItsPath)
{
    const fs::path home = this->m_home.path(), root = home / "Library" / "Mobile Documents";
    const fs::path away = home / "Away", replacement = home / "Replacement";
    constexpr std::uint32_t changed = EventStreamFlags::kRootChanged;
    const Step steps[] = {
        {"created with the folder above it", writes(root / "Docs" / "first.txt"), {root}, changed},
        {"written into", writes(root / "Docs" / "second.txt"), {root / "Docs"}, 0},
        {"deleted", [&] { TreeBuilder::removeTree(root); }, {root}, changed},
        {"made again", [&] { TreeBuilder::makeFolder(root); }, {root}, changed},
        {"written into again", writes(root / "again.txt"), {root}, 0},
        {"moved away", moves(root, away), {root}, changed},
        {"moved back", moves(away, root), {root}, changed},
        {"written into once back", writes(root / "back.txt"), {root}, 0},
        {"emptied", [&] { fs::remove(root / "again.txt"), fs::remove(root / "back.txt"); }, {root}, 0},
        {"replaced by another folder", moves(replacement, root), {root}, changed},
        {"written deep into the replacement",
         writes(root / "Inner" / "Deeper" / "new.txt"),
         {root / "Inner" / "Deeper"},
         0},
    };
    TreeBuilder::writeFile(replacement / "Inner" / "Deeper" / "old.txt", "old");
    ASSERT_TRUE(this->startStream(TypeParam::make({qtPath(root)}, this->m_recorder.callback())));
    expectContainsAll(this->m_stream->copyDescription(), {"running", "\"" + qtPath(root) + "\" is missing"});
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        this->step(step.change, step.folders, step.flags);
    }
    EXPECT_FALSE(this->m_stream->copyDescription().contains("missing"));
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

// Stops before a schedule, twice, and a start while started do nothing; an invalidated stream stays stopped.
TYPED_TEST(EventStreamTest, ControlCallsAreHarmlessInAnyState)
{
    EventStream& stream = *(this->m_stream = this->makeStream());
    stream.stop();
    stream.scheduleWithThread(QThread::currentThread());
    stream.stop();
    stream.stop();
    ASSERT_TRUE(stream.start());
    stream.stop();
    ASSERT_TRUE(stream.start());
    const QString description = stream.copyDescription();
    EXPECT_TRUE(stream.start());
    EXPECT_EQ(stream.copyDescription(), description);
    this->stopAndChange();
    EXPECT_FALSE(this->m_recorder.calledAfterStop) << "one stop ends a stream started twice";

    ASSERT_TRUE(stream.start());
    stream.invalidate();
    stream.invalidate();
    EXPECT_FALSE(stream.start());
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

// Messages of the "pelmora.watch" category, with its information switched on, while it lives.
struct WatchLog {
    WatchLog()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("pelmora.watch.info=true"));
        s_lines = &lines;
        s_previous = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& text) {
                if (context.category && std::strcmp(context.category, "pelmora.watch") == 0)
                    s_lines->push_back(text);
                else
                    s_previous(type, context, text);
            });
    }
    ~WatchLog()
    {
        qInstallMessageHandler(s_previous);
        QLoggingCategory::setFilterRules(QString());
    }
    QStringList lines;
    static inline QStringList* s_lines = nullptr;
    static inline QtMessageHandler s_previous = nullptr;
};

// Beyond the watch limit folders are polled: a change in any of them, or in a folder new in them, still
// arrives, without a flush, and so does a missing root that no watch is left to wait for. One log line
// says so, however many folders come to be polled later.
TEST_F(InotifyEventStreamTest, PollsTheFoldersBeyondTheWatchLimit)
{
    const std::vector<fs::path> folders{m_root / "A", m_root / "B", m_root / "C", m_docs, m_other};
    const fs::path later = m_home.path() / "Later";
    for (const fs::path& folder : folders)
        TreeBuilder::makeFolder(folder);
    WatchLog log;
    ASSERT_TRUE(startStream(
        InotifyBackend::make({qtPath(m_root), qtPath(later)}, m_recorder.callback(), 0.05, {3, 50ms})));
    expectContainsAll(m_stream->copyDescription(),
                      {"3 folders watched", "3 folders not watched by inotify but polled every 50 ms",
                       qtPath(m_root) + "/", "watch limit",
                       qtPath(later) + "\" is missing, looked for every 50 ms"});
    ASSERT_EQ(log.lines.size(), 1);
    expectContainsAll(log.lines.front(), {"3 folders are polled every 50 ms"});

    std::set<fs::path> expected{m_root};
    const auto writeEverywhere = [&](const char* name) {
        TreeBuilder::writeFile(m_root / name, "top");
        for (const fs::path& folder : folders) {
            TreeBuilder::writeFile(folder / name, "in");
            TreeBuilder::writeFile(folder / "New" / name, "new");
            expected.insert({folder, folder / "New"});
        }
    };
    for (const char* name : {"first.txt", "second.txt"}) {
        SCOPED_TRACE(name);
        step([&] { writeEverywhere(name); }, expected);
    }
    const auto writeLater = [&](const char* name) {
        return [=] { TreeBuilder::writeFile(later / name, name); };
    };
    step(writeLater("first.txt"), {later}, EventStreamFlags::kRootChanged);
    step(writeLater("second.txt"), {later});
    expectContainsAll(m_stream->copyDescription(), {"9 folders not watched by inotify but polled"});
    EXPECT_EQ(log.lines.size(), 1);
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

// No inotify instance can be had in a child process whose own user namespace allows none: the limit
// applies to that process alone. (Emptying the descriptor table would also do, but the sanitizers need
// descriptors for their own checks: without them they take every object for an invalid one.)
TEST(EventStreamCreateTest, PrefersInotifyAndFallsBackToPollingWhenItCannotStart)
{
    TestHome home;
    const auto backendMade = [&] {
        const auto stream = EventStream::create({qtPath(home.path())}, EventStream::kSinceNow, 0.05, {});
        return stream ? stream->copyDescription().section(' ', 0, 0).toStdString() : std::string("nothing");
    };
    EXPECT_EQ(backendMade(), "inotify");

    int answer[2];
    ASSERT_EQ(::pipe(answer), 0);
    const std::string uidMap = "0 " + std::to_string(::geteuid()) + " 1";
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool limited = ::unshare(CLONE_NEWUSER) == 0 &&
                             std::ofstream("/proc/self/uid_map") << uidMap << std::flush &&
                             std::ofstream("/proc/sys/user/max_inotify_instances") << "0" << std::flush;
        const std::string made = limited ? backendMade() : std::string("no user namespace of its own");
        ::_exit(::write(answer[1], made.data(), made.size()) == static_cast<ssize_t>(made.size()) ? 0 : 1);
    }
    ::close(answer[1]);
    char buffer[64] = {};
    const ssize_t got = ::read(answer[0], buffer, sizeof buffer - 1);
    ::close(answer[0]);
    ::waitpid(child, nullptr, 0);
    const std::string fallback(buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (fallback == "no user namespace of its own")
        GTEST_SKIP() << "no user namespace can be made here to run out of inotify instances in";
    EXPECT_EQ(fallback, "polling");
}

} // namespace
