#include "TestQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Two producers, a borrowing thread and timers use one queue: work never runs concurrently, and none is lost,
// repeated or reordered. Takes longer in a soak.
TEST(CXDispatchQueueStress, losesNothingAndRunsOneThingAtATime)
{
    constexpr size_t producerCount = 2;
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    const auto end = std::chrono::steady_clock::now() + (seconds ? 1000ms * std::atoi(seconds) : 1500ms);
    const auto isOver = [end] { return std::chrono::steady_clock::now() >= end; };
    const TestQueue queue;
    std::atomic<uint64_t> expected{0}, waiting[producerCount] = {};
    std::atomic<bool> isInside{false};
    // Not atomic on purpose: only the queue protects them.
    uint64_t entries = 0, fires = 0, overlaps = 0, outOfOrder = 0, next[producerCount][2] = {};
    const auto run = [&] {
        overlaps += isInside.exchange(true, std::memory_order_relaxed);
        ++entries;
        isInside.store(false, std::memory_order_relaxed);
    };
    const auto produce = [&](size_t producer) { // numbers its items consecutively in each lane
        uint64_t pushed[2] = {};
        for (uint64_t i = 0; !isOver(); ++i) {
            while (waiting[producer] > 10'000)
                std::this_thread::yield(); // bounded, so that timers can run
            ++waiting[producer];
            ++expected;
            const uint8_t lane = i % 64 == 0 ? CXDispatchHousekeepingLane : CXDispatchClientLane;
            queue->dispatchAsync(lane, [&, producer, lane, number = pushed[lane]++] {
                run();
                outOfOrder += number != next[producer][lane]++;
                --waiting[producer];
            });
            if (i % 256 == 0) {
                ++expected;
                queue->dispatchSync(run);
            }
        }
    };
    std::vector<CXRef<CXDispatchTimer>> timers;
    for (const uint64_t interval : {millisecond, 3 * millisecond / 2, 700'000UL}) {
        timers.push_back(timerFor(now(), interval, [&](auto&) {
            run();
            ++fires;
        }));
        timers.back()->setDispatchQueue(queue.ref());
    }
    std::thread producers[producerCount] = {std::thread(produce, 0), std::thread(produce, 1)};
    for (uint64_t i = 0; !isOver(); ++i) {
        ++expected;
        i % 8 == 0 ? queue->dispatchSyncBypass(run) : queue->dispatchSyncBypassOnce(run);
        std::this_thread::sleep_for(std::chrono::microseconds(i % 128));
    }
    for (std::thread& producer : producers)
        producer.join();
    for (const CXRef<CXDispatchTimer>& timer : timers)
        timer->cancel();
    queue.settle();
    EXPECT_EQ(entries, expected + fires);
    EXPECT_EQ(overlaps, 0U);
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_GT(fires, 0U);
}

} // namespace
