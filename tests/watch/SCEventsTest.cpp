#include "watch/SCEvents.h"

#include "support/QtPrinters.h"
#include "support/ScriptedEventStream.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QThread>

using ::testing::ElementsAre;

namespace {

struct RecordingListener : SCEventListenerProtocol {
    void pathWatcherEventOccurred(SCEvents* watcher, const std::shared_ptr<SCEvent>& event) override
    {
        watchers << watcher;
        events << event;
        paths << event->eventPath();
    }
    QList<SCEvents*> watchers;
    QList<std::shared_ptr<SCEvent>> events;
    QStringList paths;
};

class SCEventsTest : public ::testing::Test {
protected:
    // One batch of events with made-up ids, delivered as the stream would.
    void deliver(std::initializer_list<const char*> paths)
    {
        QList<StreamEvent> events;
        std::uint64_t id = 100;
        for (const char* path : paths)
            events.append(StreamEvent{path, 0, id++});
        watcher.eventStreamCallback(events);
    }

    StreamLog log;
    SCEvents watcher{scriptedStreamFactory(log)};
    RecordingListener listener;
};

TEST_F(SCEventsTest, StartsIdleThenDrivesOneStreamWhileWatching)
{
    EXPECT_FALSE(watcher.isWatchingPaths());
    EXPECT_FALSE(watcher.streamDescription().has_value());

    // Start, the flushes and stop reach the stream only while watching, and in the platform's order.
    EXPECT_FALSE(watcher.startWatchingPaths({}));
    EXPECT_FALSE(watcher.stopWatchingPaths());
    EXPECT_FALSE(watcher.flushEventStreamSync());
    EXPECT_FALSE(watcher.flushEventStreamAsync());
    EXPECT_TRUE(log.calls.isEmpty());

    watcher.setNotificationLatency(0.5);
    EXPECT_TRUE(watcher.startWatchingPaths({"/a", "/b"}));
    EXPECT_TRUE(watcher.isWatchingPaths());
    EXPECT_EQ(log.paths, QStringList({"/a", "/b"}));
    EXPECT_EQ(log.sinceWhen, EventStream::kSinceNow);
    EXPECT_EQ(log.latency, 0.5);
    EXPECT_EQ(log.scheduledOn, QThread::currentThread());
    EXPECT_EQ(watcher.streamDescription(), QString("scripted stream"));
    EXPECT_FALSE(watcher.startWatchingPaths({"/elsewhere"})) << "already watching";
    EXPECT_TRUE(watcher.flushEventStreamSync());
    EXPECT_TRUE(watcher.flushEventStreamAsync());

    EXPECT_TRUE(watcher.stopWatchingPaths());
    EXPECT_THAT(log.calls, ElementsAre("create", "schedule", "start", "flushSync", "flushAsync", "stop",
                                       "unschedule", "invalidate", "release"));
    EXPECT_FALSE(watcher.isWatchingPaths());
    EXPECT_EQ(*watcher.watchedPaths(), QStringList({"/a", "/b"})) << "remembered after the stop";
    EXPECT_FALSE(watcher.stopWatchingPaths());
    EXPECT_FALSE(watcher.streamDescription().has_value());
    EXPECT_TRUE(watcher.startWatchingPaths({"/c"})) << "a stopped watcher starts again";
}

TEST_F(SCEventsTest, TearingDownAWatchingWatcherStopsItsStream)
{
    ASSERT_TRUE(std::make_unique<SCEvents>(scriptedStreamFactory(log))->startWatchingPaths({"/a"}));
    EXPECT_THAT(log.calls,
                ElementsAre("create", "schedule", "start", "stop", "unschedule", "invalidate", "release"));
}

TEST_F(SCEventsTest, ControlCallsFromOtherThreadsWaitForTheOneRunning)
{
    std::promise<void> entered, release;
    const std::shared_future<void> released = release.get_future().share();
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

// Events reach the listener with their ids, flags and paths, unless excluded.
TEST_F(SCEventsTest, EventsReachTheListenerUnlessExcluded)
{
    watcher.eventStreamCallback({});
    EXPECT_EQ(watcher.lastEvent(), nullptr);
    deliver({"/a", "/b"});
    ASSERT_NE(watcher.lastEvent(), nullptr) << "recorded without a listener too";
    EXPECT_EQ(watcher.lastEvent()->eventPath(), "/b");

    watcher.setDelegate(&listener);
    const QDateTime before = QDateTime::currentDateTime();
    watcher.eventStreamCallback(
        {StreamEvent{"/u/Library/Mobile Documents/", 0x20, 7}, StreamEvent{"/u/a//", 0x80000000u, 8}});
    ASSERT_EQ(listener.events.size(), 2);
    EXPECT_EQ(listener.watchers, QList<SCEvents*>({&watcher, &watcher}));
    EXPECT_EQ(listener.paths, QStringList({"/u/Library/Mobile Documents", "/u/a/"}));
    EXPECT_EQ(listener.events[0]->eventId(), 7u);
    EXPECT_EQ(listener.events[0]->eventFlags(), 0x20);
    EXPECT_EQ(static_cast<std::uint32_t>(listener.events[1]->eventFlags()), 0x80000000u);
    EXPECT_GE(listener.events[0]->eventDate(), before) << "dated at delivery";
    EXPECT_EQ(watcher.lastEvent(), listener.events[1]);

    listener.paths.clear();
    watcher.setExcludedPaths(std::make_shared<const QStringList>(QStringList{"/x/y"}));
    deliver({"/first"});
    const auto previous = watcher.lastEvent();

    // One ignored event silences the rest of its batch.
    deliver({"/x/y", "/other"});
    EXPECT_EQ(listener.paths, QStringList({"/first"}));
    EXPECT_EQ(watcher.lastEvent(), previous);
    deliver({"/other", "/x/y"});
    EXPECT_EQ(listener.paths, QStringList({"/first", "/other"}));
    EXPECT_EQ(watcher.lastEvent(), previous) << "the batch ended on an ignored event";
    deliver({"/next", "/last"});
    EXPECT_EQ(watcher.lastEvent()->eventPath(), "/last") << "a new batch starts clean";

    // Whatever starts with an excluded path goes too (its sub-folders, and names it is a prefix of), unless
    // asked not to.
    listener.paths.clear();
    for (const char* path : {"/x/y/z", "/x/yz", "/x"})
        deliver({path});
    watcher.setIgnoreEventsFromSubDirs(false);
    for (const char* path : {"/x/y/z", "/x/yz", "/x/y"})
        deliver({path});
    EXPECT_EQ(listener.paths, QStringList({"/x", "/x/y/z", "/x/yz"}));
}

} // namespace
