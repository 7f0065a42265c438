#include "GlobalQueue.h"
#include "HostClock.h"
#include "MainQueue.h"
#include "SerialQueue.h"

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

    const CXRef<SerialQueue> inner = SerialQueue::initWithLabel("vierzehn bytesä");
    queue->sync([&] {
        inner->sync([&] { // on this thread: it is idle
            EXPECT_TRUE(inner->isCurrent());
            EXPECT_TRUE(queue->isCurrent());
        });
        EXPECT_FALSE(inner->isCurrent());
    });
    std::promise<std::string> name;
    inner->async([&] {
        char text[16];
        pthread_getname_np(pthread_self(), text, sizeof text);
        name.set_value(text);
    });
    EXPECT_EQ(name.get_future().get(), "vierzehn bytes") << "cut at a whole character";
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
        second.get_future().wait(); // would wait forever on one thread
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
            queue.async([&] { ++ran; }); // for the next drain
        });
    }).join();
    EXPECT_TRUE(isReadable(queue.fd()));
    EXPECT_EQ(queue.drain(), 1U);
    EXPECT_TRUE(isReadable(queue.fd()));
    EXPECT_EQ(queue.drain(), 1U);
    EXPECT_FALSE(isReadable(queue.fd()));
    EXPECT_EQ(ran, 2);
}

TEST(MainQueue, runsUntilItIsStoppedAndBelongsToTheThreadThatServesIt)
{
    MainQueue& queue = MainQueue::shared();
    std::atomic<bool> current{false};
    std::thread server([&] { queue.run(); });
    std::promise<void> served;
    queue.async([&] {
        current = queue.isCurrent();
        served.set_value();
    });
    served.get_future().wait();
    queue.stop();
    server.join();
    EXPECT_TRUE(current);
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_FALSE(isReadable(queue.fd()));
}

} // namespace
} // namespace dxr
