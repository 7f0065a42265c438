#include "GlobalQueue.h"
#include "HostClock.h"
#include "MainQueue.h"
#include "SerialQueue.h"
#include "Thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <poll.h>
#include <thread>
#include <vector>

namespace dxr {
namespace {

bool isReadable(int descriptor)
{
    pollfd readable{descriptor, POLLIN, 0};
    return poll(&readable, 1, 0) == 1;
}

TEST(SerialQueue, runsWorkInOrderAndLeavesNoneBehindWhenReleased)
{
    constexpr int perProducer = 2000;
    std::vector<int> order;
    std::promise<void> last;
    {
        const CXRef<SerialQueue> queue = SerialQueue::initWithLabel("order");
        for (int i = 0; i < perProducer; ++i)
            queue->async([&order, i] { order.push_back(i); });
        queue->async([&last] { last.set_value(); });
    }
    last.get_future().wait();
    ASSERT_EQ(order.size(), static_cast<size_t>(perProducer));
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(SerialQueue, knowsItsOwnThreadAndRefusesToWaitForItself)
{
    const CXRef<SerialQueue> queue = SerialQueue::initWithLabel("self");
    EXPECT_FALSE(queue->isCurrent());
    bool current = false;
    bool refused = false;
    queue->sync([&] {
        current = queue->isCurrent();
        try {
            queue->sync([] {});
        } catch (const std::system_error& error) {
            refused = error.code() == std::errc::resource_deadlock_would_occur;
        }
    });
    EXPECT_TRUE(current);
    EXPECT_TRUE(refused);

    const CXRef<SerialQueue> inner = SerialQueue::initWithLabel("inner");
    queue->sync([&] {
        inner->sync([&] { // runs on this thread, because the inner queue is idle
            EXPECT_TRUE(inner->isCurrent());
            EXPECT_TRUE(queue->isCurrent());
        });
        EXPECT_FALSE(inner->isCurrent());
    });
}

TEST(Thread, isWaitedForByOthersAndDetachedByItself)
{
    std::atomic<bool> hasEnded{false};
    {
        const Thread thread("other", [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            hasEnded = true;
        });
    }
    EXPECT_TRUE(hasEnded);
    std::promise<Thread*> own;
    std::promise<void> done;
    own.set_value(new Thread("itself", [&, self = own.get_future().share()] {
        delete self.get();
        done.set_value();
    }));
    done.get_future().wait();
}

TEST(WorkQueue, delaysWorkAndKeepsTheOrderOfDeadlines)
{
    std::vector<int> order;
    std::promise<uint64_t> last;
    const uint64_t start = HostClock::nowTicks();
    {
        const CXRef<SerialQueue> queue = SerialQueue::initWithLabel("delay");
        queue->after(20'000'000, [&] {
            order.push_back(2);
            last.set_value(HostClock::nowTicks());
        });
        queue->after(5'000'000, [&] { order.push_back(1); });
    }
    EXPECT_GE(last.get_future().get() - start, 20'000'000U);
    EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(GlobalQueue, runsWorkSideBySide)
{
    std::promise<void> first;
    std::promise<void> second;
    GlobalQueue::highPriority().async([&] {
        second.get_future().wait(); // would wait forever on a single thread
        first.set_value();
    });
    GlobalQueue::highPriority().async([&] { second.set_value(); });
    first.get_future().wait();
}

TEST(MainQueue, showsWaitingWorkThroughItsDescriptor)
{
    MainQueue& queue = MainQueue::shared();
    EXPECT_TRUE(queue.isCurrent());
    EXPECT_FALSE(isReadable(queue.fd()));
    int ran = 0;
    std::thread([&] {
        queue.async([&] {
            ++ran;
            queue.async([&] { ++ran; }); // runs in the next drain
        });
    }).join();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(isReadable(queue.fd()));
        EXPECT_EQ(queue.drain(), 1U);
    }
    EXPECT_FALSE(isReadable(queue.fd()));
    EXPECT_EQ(ran, 2);
}

TEST(MainQueue, runsUntilItIsStoppedAndBelongsToTheThreadThatServesIt)
{
    MainQueue& queue = MainQueue::shared();
    for (int round = 0; round < 2; ++round) { // run() works repeatedly
        std::thread server([&] { queue.run(); });
        std::promise<bool> isCurrent;
        queue.async([&] { isCurrent.set_value(queue.isCurrent()); });
        EXPECT_TRUE(isCurrent.get_future().get());
        queue.stop();
        server.join();
        EXPECT_FALSE(queue.isCurrent());
        EXPECT_FALSE(isReadable(queue.fd()));
    }
}

} // namespace
} // namespace dxr
