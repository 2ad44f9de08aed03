#include "support/EventLoop.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"
#include "watch/SCEvents.h"

#include <QThread>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

using ::testing::ElementsAre;

namespace {

class RecordingListener : public SCEventListenerProtocol {
public:
    void pathWatcherEventOccurred(SCEvents* watcher, const std::shared_ptr<SCEvent>& event) override
    {
        watchers << watcher;
        events << event;
    }
    QStringList paths() const
    {
        QStringList result;
        for (const auto& event : events)
            result << event->eventPath();
        return result;
    }
    QList<SCEvents*> watchers;
    QList<std::shared_ptr<SCEvent>> events;
};

class SCEventsTest : public ::testing::Test {
protected:
    SCEvents::StreamFactory factory() { return scriptedStreamFactory(log); }
    static QList<StreamEvent> batch(std::initializer_list<const char*> paths)
    {
        QList<StreamEvent> events;
        std::uint64_t id = 100;
        for (const char* path : paths)
            events.append(StreamEvent{path, 0, id++});
        return events;
    }
    void exclude(const QStringList& paths) { watcher.setExcludedPaths(std::make_shared<const QStringList>(paths)); }

    StreamLog log;
    SCEvents watcher{factory()};
    RecordingListener listener;
};

TEST_F(SCEventsTest, StartsIdleWithTheDocumentedDefaults)
{
    EXPECT_FALSE(watcher.isWatchingPaths());
    EXPECT_EQ(watcher.notificationLatency(), 3.0);
    EXPECT_EQ(watcher.resumeFromEventId(), 0xFFFFFFFFFFFFFFFFull);
    EXPECT_TRUE(watcher.ignoreEventsFromSubDirs());
    EXPECT_EQ(watcher.delegate(), nullptr);
    EXPECT_EQ(watcher.lastEvent(), nullptr);
    EXPECT_EQ(watcher.watchedPaths(), nullptr);
    EXPECT_EQ(watcher.excludedPaths(), nullptr);
    EXPECT_EQ(watcher.runLoop(), nullptr);
    EXPECT_EQ(watcher.eventsQueue().label(), "scevents.queue");
    EXPECT_EQ(watcher.description(), "<SCEvents { watchedPaths = (null), excludedPaths = (null) } >");
    EXPECT_FALSE(watcher.streamDescription().has_value());
}

TEST_F(SCEventsTest, StartCreatesSchedulesAndStartsOneStreamOnTheGivenThread)
{
    EXPECT_FALSE(watcher.startWatchingPaths({}));
    EXPECT_TRUE(log.calls.isEmpty());

    watcher.setNotificationLatency(0.5);
    EXPECT_TRUE(watcher.startWatchingPaths({"/home/jane/Library/Mobile Documents"}));
    EXPECT_TRUE(watcher.isWatchingPaths());
    EXPECT_THAT(log.calls, ElementsAre("create", "schedule", "start"));
    EXPECT_EQ(log.paths, QStringList({"/home/jane/Library/Mobile Documents"}));
    EXPECT_EQ(log.sinceWhen, EventStream::kSinceNow);
    EXPECT_EQ(log.latency, 0.5);
    EXPECT_EQ(log.scheduledOn, QThread::currentThread());
    EXPECT_EQ(watcher.runLoop(), QThread::currentThread());
    EXPECT_EQ(watcher.streamDescription(), QString("scripted stream"));

    EXPECT_FALSE(watcher.startWatchingPaths({"/elsewhere"})) << "already watching";
    EXPECT_EQ(log.calls.count("create"), 1);
}

TEST_F(SCEventsTest, StopTearsTheStreamDownAndRemembersWhatWasWatched)
{
    EXPECT_FALSE(watcher.stopWatchingPaths());
    ASSERT_TRUE(watcher.startWatchingPaths({"/a", "/b"}));
    log.calls.clear();

    EXPECT_TRUE(watcher.stopWatchingPaths());
    EXPECT_THAT(log.calls, ElementsAre("stop", "unschedule", "invalidate", "release"));
    EXPECT_FALSE(watcher.isWatchingPaths());
    EXPECT_EQ(*watcher.watchedPaths(), QStringList({"/a", "/b"}));
    EXPECT_FALSE(watcher.stopWatchingPaths());
    EXPECT_FALSE(watcher.streamDescription().has_value());
    EXPECT_EQ(watcher.description(),
              "<SCEvents { watchedPaths = (\n    \"/a\",\n    \"/b\"\n), excludedPaths = (null) } >");

    EXPECT_TRUE(watcher.startWatchingPaths({"/c"})) << "a stopped watcher starts again";
}

TEST_F(SCEventsTest, FlushesReachTheStreamOnlyWhileWatching)
{
    EXPECT_FALSE(watcher.flushEventStreamSync());
    EXPECT_FALSE(watcher.flushEventStreamAsync());
    ASSERT_TRUE(watcher.startWatchingPaths({"/a"}));
    EXPECT_TRUE(watcher.flushEventStreamSync());
    EXPECT_TRUE(watcher.flushEventStreamAsync());
    EXPECT_THAT(log.calls, ElementsAre("create", "schedule", "start", "flushSync", "flushAsync"));
}

TEST_F(SCEventsTest, TearingDownAWatchingWatcherStopsItsStream)
{
    {
        SCEvents temporary(factory());
        ASSERT_TRUE(temporary.startWatchingPaths({"/a"}));
    }
    EXPECT_THAT(log.calls, ElementsAre("create", "schedule", "start", "stop", "unschedule", "invalidate", "release"));
}

TEST_F(SCEventsTest, ControlCallsFromOtherThreadsWaitForTheOneRunning)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    log.duringStart = [&] {
        entered.set_value();
        released.wait();
    };
    std::thread starter([&] { watcher.startWatchingPaths({"/a"}, QThread::currentThread()); });
    entered.get_future().wait();

    auto description = std::async(std::launch::async, [&] { return watcher.streamDescription(); });
    EXPECT_EQ(description.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
        << "the description ran while the start was still in progress";
    release.set_value();
    starter.join();
    EXPECT_EQ(description.get(), QString("scripted stream"));
}

TEST_F(SCEventsTest, EventsReachTheListenerWithTheirIdsFlagsAndPaths)
{
    watcher.setDelegate(&listener);
    const QDateTime before = QDateTime::currentDateTime();
    watcher.eventStreamCallback({StreamEvent{"/u/Library/Mobile Documents/", 0x20, 7},
                                 StreamEvent{"/u/a//", 0x80000000u, 8}});

    ASSERT_EQ(listener.events.size(), 2);
    EXPECT_EQ(listener.watchers, QList<SCEvents*>({&watcher, &watcher}));
    EXPECT_EQ(listener.paths(), QStringList({"/u/Library/Mobile Documents", "/u/a/"}));
    EXPECT_EQ(listener.events[0]->eventId(), 7u);
    EXPECT_EQ(listener.events[0]->eventFlags(), 0x20);
    EXPECT_EQ(static_cast<std::uint32_t>(listener.events[1]->eventFlags()), 0x80000000u);
    EXPECT_GE(listener.events[0]->eventDate(), before) << "dated at delivery";
    EXPECT_EQ(watcher.lastEvent(), listener.events[1]);
}

TEST_F(SCEventsTest, OneIgnoredEventSilencesTheRestOfItsBatch)
{
    watcher.setDelegate(&listener);
    exclude({"/x/y"});
    watcher.eventStreamCallback(batch({"/first"}));
    const auto previous = watcher.lastEvent();

    watcher.eventStreamCallback(batch({"/x/y", "/other"}));
    EXPECT_EQ(listener.paths(), QStringList({"/first"}));
    EXPECT_EQ(watcher.lastEvent(), previous);

    watcher.eventStreamCallback(batch({"/other", "/x/y"}));
    EXPECT_EQ(listener.paths(), QStringList({"/first", "/other"}));
    EXPECT_EQ(watcher.lastEvent(), previous) << "the batch ended on an ignored event";

    watcher.eventStreamCallback(batch({"/next", "/last"}));
    EXPECT_EQ(watcher.lastEvent()->eventPath(), "/last") << "a new batch starts clean";
}

TEST_F(SCEventsTest, ExcludedPrefixesDropSubFoldersAndLookalikesOnlyWhenAsked)
{
    watcher.setDelegate(&listener);
    exclude({"/x/y"});
    watcher.eventStreamCallback(batch({"/x/y/z"}));
    watcher.eventStreamCallback(batch({"/x/yz"}));
    watcher.eventStreamCallback(batch({"/x"}));
    EXPECT_EQ(listener.paths(), QStringList({"/x"}));

    watcher.setIgnoreEventsFromSubDirs(false);
    watcher.eventStreamCallback(batch({"/x/y/z"}));
    watcher.eventStreamCallback(batch({"/x/yz"}));
    watcher.eventStreamCallback(batch({"/x/y"}));
    EXPECT_EQ(listener.paths(), QStringList({"/x", "/x/y/z", "/x/yz"}));
}

TEST_F(SCEventsTest, WithoutAListenerEventsAreStillRecorded)
{
    watcher.eventStreamCallback({});
    EXPECT_EQ(watcher.lastEvent(), nullptr);
    watcher.eventStreamCallback(batch({"/a", "/b"}));
    ASSERT_NE(watcher.lastEvent(), nullptr);
    EXPECT_EQ(watcher.lastEvent()->eventPath(), "/b");
}

TEST(SCEventTest, DescribesItselfWithASignedIdAndAnUnsignedFlagWord)
{
    EXPECT_EQ(SCEvent::eventWithEventId(7, QDateTime::currentDateTime(), "/a", 16)->description(),
              "<SCEvent { eventId = 7, eventPath = /a, eventFlags = 16 } >");
    const auto topBit = SCEvent::eventWithEventId(0xFFFFFFFFFFFFFFFFull, {}, "/%1 b",
                                                  static_cast<std::int32_t>(0x80000000u));
    EXPECT_EQ(static_cast<std::uint32_t>(topBit->eventFlags()), 0x80000000u);
    EXPECT_EQ(topBit->description(), "<SCEvent { eventId = -1, eventPath = /%1 b, eventFlags = 2147483648 } >");
}

} // namespace

namespace {

class ThreadRecordingListener : public SCEventListenerProtocol {
public:
    void pathWatcherEventOccurred(SCEvents*, const std::shared_ptr<SCEvent>& event) override
    {
        threads.push_back(QThread::currentThread());
        paths.push_back(event->eventPath());
    }
    std::vector<QThread*> threads;
    std::vector<QString> paths;
};

// With the platform's own stream: a change under the watched folder reaches the listener as the changed
// folder's path, on the thread the stream was scheduled on.
TEST(SCEventsOnTheRealStreamTest, ChangesArriveAsFolderPathsOnTheSchedulingThread)
{
    TestHome home;
    const QString folder = QString::fromStdString((home.path() / "watched").string());
    TreeBuilder::makeFolder((home.path() / "watched" / "sub").string());
    ThreadRecordingListener listener;
    SCEvents watcher;
    watcher.setDelegate(&listener);
    watcher.setNotificationLatency(0.05);
    ASSERT_TRUE(watcher.startWatchingPaths({folder}));
    EXPECT_TRUE(watcher.streamDescription().value_or(QString()).contains(folder));

    TreeBuilder::writeFile((home.path() / "watched" / "sub" / "new.txt").string(), "x");
    ASSERT_TRUE(runEventLoopUntil([&] { return !listener.paths.empty(); }));
    EXPECT_EQ(listener.paths.front(), folder + "/sub");
    EXPECT_EQ(listener.threads.front(), QThread::currentThread());

    EXPECT_TRUE(watcher.stopWatchingPaths());
    const std::size_t delivered = listener.paths.size();
    TreeBuilder::writeFile((home.path() / "watched" / "after.txt").string(), "x");
    QCoreApplication::processEvents();
    EXPECT_FALSE(runEventLoopUntil([&] { return listener.paths.size() > delivered; }, 300))
        << "nothing after stop";
}

} // namespace
