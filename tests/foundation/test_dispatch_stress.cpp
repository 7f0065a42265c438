#include "CXDispatchTimer.h"
#include "TestQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

/// Duration of the test; longer in a soak.
std::chrono::milliseconds stressTime()
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::chrono::seconds(std::atoi(seconds)) : std::chrono::milliseconds(1500);
}

// Two producers, a borrowing thread and timers use one queue: work never runs concurrently, and none is lost,
// repeated or reordered.
class CXDispatchQueueStress : public testing::Test {
protected:
    static constexpr int producerCount = 2;

    bool isOver() const { return std::chrono::steady_clock::now() >= _end; }
    /// Every item of the queue calls this. Each producer numbers its items consecutively in each lane.
    void run(int producer, uint8_t lane, uint64_t number)
    {
        run();
        if (number != _next[producer][lane]++)
            ++outOfOrder;
        --_waiting[producer];
    }
    void run()
    {
        if (_inside.exchange(true, std::memory_order_relaxed))
            ++overlaps;
        ++entries;
        _inside.store(false, std::memory_order_relaxed);
    }
    void produce(int producer)
    {
        uint64_t pushed[2] = {};
        for (uint64_t i = 0; !isOver(); ++i) {
            while (_waiting[producer] > 10'000)
                std::this_thread::yield(); // bounded, so that timers can run
            ++_waiting[producer];
            ++expected;
            const uint8_t lane = i % 64 == 0 ? CXDispatchHousekeepingLane : CXDispatchClientLane;
            const uint64_t number = pushed[lane]++;
            queue->dispatchAsync(lane, [this, producer, lane, number] { run(producer, lane, number); });
            if (i % 256 == 0) {
                ++expected;
                queue->dispatchSync([this] { run(); });
            }
        }
    }
    void borrow()
    {
        for (uint64_t i = 0; !isOver(); ++i) {
            ++expected;
            if (i % 8 == 0)
                queue->dispatchSyncBypass([this] { run(); });
            else
                queue->dispatchSyncBypassOnce([this] { run(); });
            std::this_thread::sleep_for(std::chrono::microseconds(i % 128));
        }
    }

    const TestQueue queue;
    std::atomic<uint64_t> expected{0}, outOfOrder{0}, overlaps{0};
    uint64_t entries = 0; // not atomic on purpose: only the queue protects it

private:
    const std::chrono::steady_clock::time_point _end = std::chrono::steady_clock::now() + stressTime();
    uint64_t _next[producerCount][2] = {}; // not atomic on purpose
    std::atomic<uint64_t> _waiting[producerCount] = {};
    std::atomic<bool> _inside{false};
};

TEST_F(CXDispatchQueueStress, losesNothingAndRunsOneThingAtATime)
{
    std::vector<CXRef<CXDispatchTimer>> timers;
    uint64_t fires = 0;
    for (const uint64_t interval : {millisecond, 3 * millisecond / 2, 700'000UL}) {
        timers.push_back(CXDispatchTimer::init());
        timers.back()->setTimeoutAbsolute(now(), interval);
        timers.back()->setTimeoutHandler([&](const CXRef<CXDispatchTimer>&) {
            run();
            ++fires;
        });
        timers.back()->setDispatchQueue(queue.ref());
    }
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producerCount; ++producer)
        threads.emplace_back([this, producer] { produce(producer); });
    threads.emplace_back([this] { borrow(); });
    for (std::thread& thread : threads)
        thread.join();
    for (const CXRef<CXDispatchTimer>& timer : timers)
        timer->cancel();
    queue.settle();
    EXPECT_EQ(entries, expected + fires);
    EXPECT_EQ(overlaps, 0U);
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_GT(fires, 0U);
}

} // namespace
