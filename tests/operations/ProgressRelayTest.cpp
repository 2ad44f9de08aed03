#include "operations/ProgressRelay.h"

#include "support/EventLoop.h"

#include <gtest/gtest.h>
#include <QObject>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class ProgressRelayTest : public ::testing::Test {
protected:
    std::shared_ptr<ProgressRelay> makeRelay(std::chrono::milliseconds delay, QObject* owner = nullptr)
    {
        return ProgressRelay::create(
            owner ? owner : &context,
            [this](const fs::path& copied) {
                applied.push_back(copied.string());
                offMainThread += QThread::currentThread() != QCoreApplication::instance()->thread() ? 1 : 0;
            },
            delay);
    }

    QObject context;
    std::vector<std::string> applied;
    int offMainThread = 0;
};

TEST_F(ProgressRelayTest, EveryUpdateFromAWorkerIsAppliedOnTheMainThreadInCopyOrder)
{
    auto relay = makeRelay(1ms);
    constexpr std::size_t kFiles = 5000;
    std::thread worker([relay] {
        for (std::size_t i = 0; i < kFiles; ++i)
            relay->post("file-" + std::to_string(i));
    });
    ASSERT_TRUE(runEventLoopUntil([&] { return applied.size() >= kFiles; }));
    worker.join();

    ASSERT_EQ(applied.size(), kFiles);
    for (std::size_t i = 0; i < kFiles; ++i)
        ASSERT_EQ(applied[i], "file-" + std::to_string(i));
    EXPECT_EQ(offMainThread, 0);

    // An update after a flush starts a batch of its own.
    relay->post("first");
    relay->flush();
    relay->post("second");
    ASSERT_TRUE(runEventLoopUntil([&] { return applied.size() == kFiles + 2; }));
    EXPECT_EQ(applied.back(), "second");
}

TEST_F(ProgressRelayTest, UpdatesWaitForTheirBatchUnlessFlushed)
{
    auto relay = makeRelay(10s);
    relay->post("a");
    relay->post("b");
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    EXPECT_TRUE(applied.empty());

    relay->flush();
    EXPECT_EQ(applied, (std::vector<std::string>{"a", "b"}));
    relay->flush();
    EXPECT_EQ(applied.size(), 2u);
}

TEST_F(ProgressRelayTest, NothingIsAppliedOnceTheContextIsGone)
{
    auto owner = std::make_unique<QObject>();
    auto relay = makeRelay(1ms, owner.get());
    relay->post("late");
    owner.reset();
    relay->flush();
    relay->post("later");
    EXPECT_FALSE(runEventLoopUntil([&] { return !applied.empty(); }, 100));
}

} // namespace
