#include "HostClock.h"
#include "MainQueue.h"
#include "SerialQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <future>
#include <memory>
#include <poll.h>
#include <thread>
#include <vector>

namespace dxr {
namespace {

TEST(SerialQueue, runsAllWorkInOrderWhenReleasedAndDelayedWorkByItsDeadline)
{
    std::vector<int> order;
    std::promise<uint64_t> last;
    uint64_t start = 0;
    {
        const CXRef<SerialQueue> queue = SerialQueue::initWithLabel("order");
        queue->after(5'000'000, [&] { order.push_back(INT_MAX); });
        for (int i = 0; i < 2000; ++i)
            queue->async([&order, i] { order.push_back(i); });
        start = HostClock::nowTicks();
        queue->after(20'000'000, [&] { last.set_value(HostClock::nowTicks()); });
    }
    EXPECT_GE(last.get_future().get() - start, 20'000'000U);
    EXPECT_EQ(order.size(), 2001U);
    order.erase(std::ranges::find(order, INT_MAX)); // anywhere on a busy machine
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(SerialQueue, knowsItsOwnThreadAndRefusesToWaitForItself)
{
    const auto queue = SerialQueue::initWithLabel("self"), inner = SerialQueue::initWithLabel("inner");
    EXPECT_FALSE(queue->isCurrent());
    queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        EXPECT_THROW(queue->sync([] {}), std::system_error);
        inner->sync([&] { // runs on this thread, because the inner queue is idle
            EXPECT_TRUE(inner->isCurrent());
            EXPECT_TRUE(queue->isCurrent());
        });
        EXPECT_FALSE(inner->isCurrent());
    });
}

TEST(SerialQueue, destroysWorkBeforeOtherWorkRuns)
{
    const CXRef<SerialQueue> queue = SerialQueue::initWithLabel("last");
    std::atomic<bool> isDestroyed{false};
    std::jthread other;
    std::shared_ptr<void> last(nullptr, [&](void*) {
        other = std::jthread([&] { queue->sync([&] { EXPECT_TRUE(isDestroyed); }); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        isDestroyed = true;
    });
    queue->async([held = std::move(last)] {});
    while (!isDestroyed)
        std::this_thread::yield();
}

TEST(MainQueue, showsWaitingWorkAndBelongsToTheThreadThatServesIt)
{
    MainQueue& queue = MainQueue::shared();
    const auto isReadable = [&queue] {
        pollfd readable{queue.fd(), POLLIN, 0};
        return poll(&readable, 1, 0) == 1;
    };
    EXPECT_TRUE(queue.isCurrent());
    EXPECT_FALSE(isReadable());
    int ran = 0;
    std::thread([&] {
        queue.async([&] {
            ++ran;
            queue.async([&] { ++ran; }); // runs in the next drain
        });
    }).join();
    for (int round = 1; round <= 2; ++round) {
        EXPECT_TRUE(isReadable());
        EXPECT_EQ(queue.drain(), 1U);
        EXPECT_EQ(ran, round);
    }
    for (int round = 0; round < 2; ++round) { // run() works repeatedly
        std::thread server([&] { queue.run(); });
        std::promise<bool> isCurrent;
        queue.async([&] { isCurrent.set_value(queue.isCurrent()); });
        EXPECT_TRUE(isCurrent.get_future().get());
        queue.stop();
        server.join();
        EXPECT_FALSE(queue.isCurrent());
        queue.drain(); // run() may have returned before stop() has
        EXPECT_FALSE(isReadable());
    }
    queue.stop();
    EXPECT_EQ(queue.drain(), 0U);
    EXPECT_FALSE(isReadable());
    queue.run(); // returns at once
}

} // namespace
} // namespace dxr
