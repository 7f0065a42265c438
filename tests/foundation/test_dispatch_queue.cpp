#include "CapturedLog.h"
#include "Eventually.h"
#include "Gate.h"
#include "Privileges.h"
#include "ReasonOf.h"
#include "TestQueue.h"

#include <atomic>

namespace {

TEST(CXDispatchQueue, runsLanesInOrderAndHousekeepingFirst)
{
    const TestQueue queue;
    std::string order;
    const auto append = [&](char c) { return [&order, c] { order += c; }; };
    Gate gate(*queue.ref());
    queue->dispatchAsync([&] {
        order += 'a';
        queue->dispatchAsync(CXDispatchHousekeepingLane, append('z'));
    });
    queue->dispatchAsync(append('b'));
    queue->dispatchAsync(CXDispatchHousekeepingLane, append('x'));
    queue->dispatchAsync(CXDispatchHousekeepingLane, append('y'));
    queue->dispatchAsync(nullptr);
    gate.open();
    queue.settle();
    EXPECT_EQ(order, "xyazb");
}

TEST(CXDispatchQueue, runsImmediateWorkInPlaceOnTheQueueAndWaitsElsewhere)
{
    const TestQueue queue;
    int ran = 0;
    EXPECT_FALSE(queue->dispatchSyncImmed([&] {
        EXPECT_EQ(queue->owner(), queue->thread());
        EXPECT_TRUE(queue->dispatchSyncImmed([&] { ++ran; }));
        EXPECT_TRUE(queue->dispatchAsyncImmed([&] { ++ran; }));
        EXPECT_EQ(ran, 2);
    }));
    EXPECT_FALSE(queue->dispatchAsyncImmed([&] { ++ran; }));
    EXPECT_FALSE(queue->dispatchSyncImmed(nullptr));
    queue.settle();
    EXPECT_EQ(ran, 3);
}

TEST(CXDispatchQueue, isBorrowedByABypassWhenIdle)
{
    const TestQueue queue;
    const pthread_t self = pthread_self();
    pthread_t after = 0;
    queue.waitUntilIdle();
    queue->dispatchSyncBypassOnce([&] {
        EXPECT_EQ(pthread_self(), self);
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
        queue->dispatchAsync([&] { after = pthread_self(); });
    });
    EXPECT_FALSE(queue->isDispatchedOnCurrentThread());
    queue.settle();
    EXPECT_EQ(after, queue->thread()) << "a single bypass leaves client work to the thread";

    queue.waitUntilIdle();
    queue->dispatchSyncBypass([&] { queue->dispatchAsync([&] { after = pthread_self(); }); });
    EXPECT_EQ(after, self) << "a whole bypass runs it";
}

// A bypass of a busy queue waits as housekeeping work. Rounds in which it is pushed only after the client
// work has run prove nothing.
TEST(CXDispatchQueue, runsABypassBeforeWaitingClientWorkWhenBusy)
{
    const TestQueue queue;
    bool hasOvertaken = false;
    for (int delay = 1; delay < 100 && !hasOvertaken; ++delay) {
        Gate gate(*queue.ref());
        bool hasClientRun = false;
        queue->dispatchAsync([&] { hasClientRun = true; });
        const std::jthread other(
            [&] { queue->dispatchSyncBypassOnce([&] { hasOvertaken = !hasClientRun; }); });
        sleepForMilliseconds(delay); // until the other thread has pushed
        gate.open();
        queue.settle();
    }
    EXPECT_TRUE(hasOvertaken);
}

TEST(CXDispatchQueue, assertsItsRulesWithFileAndLine)
{
    const TestQueue queue;
    const CXRef<CXDispatchQueue> cancelled = CXDispatchQueue::init();
    cancelled->cancel();
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    timer->cancel();
    const auto onQueue = [&](const std::function<void()>& body) {
        std::string reason;
        queue->dispatchSync([&] { reason = reasonOf(body); });
        return reason;
    };
    const std::pair<const char*, std::string> rows[] = {
        {"lane 2", reasonOf([&] { queue->dispatchSync(2, [] {}); })},
        {"asynchronous, cancelled", reasonOf([&] { cancelled->dispatchAsync([] {}); })},
        {"bypass, cancelled", reasonOf([&] { cancelled->dispatchSyncBypass([] {}); })},
        {"synchronous, from the queue", onQueue([&] { queue->dispatchSync([] {}); })},
        {"whole bypass, from the queue", onQueue([&] { queue->dispatchSyncBypass([] {}); })},
        {"a cancelled timer", reasonOf([&] { timer->setDispatchQueue(queue.ref()); })},
    };
    for (const auto& [why, reason] : rows) {
        EXPECT_TRUE(reason.starts_with("CXDispatchQueue:")) << why << ": " << reason;
        EXPECT_EQ(reason.find_first_not_of("0123456789", 16), std::string::npos) << why << ": " << reason;
    }
    const auto misplaced = [&queue] { CX_ASSERT_ON_QUEUE(queue); };
    const auto displaced = [&queue] { CX_ASSERT_NOT_ON_QUEUE(queue); };
    EXPECT_NE(reasonOf(misplaced).find(" - [queue isDispatchedOnCurrentThread] "), std::string::npos);
    EXPECT_NE(onQueue(displaced).find(" - ![queue isDispatchedOnCurrentThread] "), std::string::npos);
    EXPECT_EQ(onQueue(misplaced) + reasonOf(displaced), "(none)(none)");
}

// An assertion that fails in queue work cannot be caught.
TEST(CXDispatchQueueDeathTest, endsTheProcessAtABrokenRule)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto destroyWhileBusy = [](CXDispatchQueue* queue) {
        queue->dispatchSync([queue] {
            queue->release(); // the test's reference
            queue->release(); // the queue thread's reference
        });
    };
    EXPECT_DEATH(destroyWhileBusy(CXDispatchQueue::init().leak()),
                 "CXAssertionFailure: CXDispatchQueue:[0-9]+");
}

bool threadEnds(const CXDispatchQueue& queue)
{
    return eventually([&] { return queue.thread() == 0; });
}

TEST(CXDispatchQueue, finishesEarlierWorkWhenCancelledAndRunsWhatIsAllowedAfterwards)
{
    const CXRef<CXDispatchQueue> queue = CXDispatchQueue::init();
    const auto timer = timerFor(now() + 3600'000 * millisecond, 0, [](auto&) {});
    const auto late = timerFor(0, 0, [](auto&) {});
    timer->setDispatchQueue(queue);
    std::atomic<int> ran{0};
    std::promise<void> isCancelled;
    queue->dispatchAsync([&] {
        isCancelled.get_future().wait();
        queue->setRealTime(); // runs at once, like all that the queue's own work asks of it
    });
    for (int i = 0; i < 100; ++i)
        queue->dispatchAsync([&] { ++ran; });
    queue->cancel();
    queue->cancel();
    isCancelled.set_value();
    EXPECT_TRUE(threadEnds(*queue));
    EXPECT_EQ(ran, 100);
    EXPECT_FALSE(timer->handler()) << "timers are cancelled with their queue";
    EXPECT_FALSE(timer->queue());
    late->setDispatchQueue(queue);
    EXPECT_FALSE(late->handler()) << "a cancelled queue cancels new timers";

    queue->dispatchSync(CXDispatchClientLane | CXDispatchAfterCancel, [&] {
        ++ran;
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
    });
    queue->dispatchAsync(CXDispatchClientLane | CXDispatchAfterCancel, [&] { ++ran; });
    EXPECT_EQ(ran, 102);

    const CXRef<CXDispatchQueue> fromWithin = CXDispatchQueue::init();
    fromWithin->dispatchSyncBypass([&] { fromWithin->cancel(); });
    EXPECT_TRUE(threadEnds(*fromWithin)) << "cancelled by the thread that borrows it";
    const CXRef<CXDispatchQueue> fromOutside = CXDispatchQueue::init();
    fromOutside->dispatchSyncBypass([&] { std::thread([&] { fromOutside->cancel(); }).join(); });
    EXPECT_TRUE(threadEnds(*fromOutside)) << "cancelled while it is borrowed";
}

/// Returns whether the thread has real-time scheduling, or a refusal was logged.
bool isSettled(pthread_t thread, const CapturedLog& log)
{
    int policy = SCHED_OTHER;
    sched_param parameters{};
    pthread_getschedparam(thread, &policy, &parameters);
    return (policy & ~SCHED_RESET_ON_FORK) != SCHED_OTHER || !log.lines().empty();
}

TEST(CXDispatchQueue, isRealTimeWhenSetRealTimeReturnsThoughItIsBorrowedAndATimerIsAlwaysDue)
{
    const CapturedLog log;
    const TestQueue queue;
    const auto alwaysDue = timerFor(1, 0, [](auto& self) { self->setTimeoutAbsolute(1, 0); });
    std::thread other;
    queue.waitUntilIdle();
    queue->dispatchSyncBypass([&] {
        alwaysDue->setDispatchQueue(queue.ref());
        other = std::thread([&] {
            queue->setRealTime();
            EXPECT_TRUE(isSettled(queue->thread(), log));
        });
        sleepForMilliseconds(50); // until the other thread has pushed
    });
    other.join();
    alwaysDue->cancel();

    const CapturedLog laterLog;
    const TestQueue later;
    later->dispatchSyncBypass([&] { later->setRealTime(); }); // must not wait for the queue's own thread
    later.settle();
    EXPECT_TRUE(isSettled(later->thread(), laterLog));
}

TEST(CXDispatchQueueDeathTest, logsARefusalOfRealTimeWithItsError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto refused = [] {
        giveUpPrivileges();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        const CXRef<CXDispatchQueue> queue = CXDispatchQueue::init();
        queue->setRealTime();
        std::exit(queue->realTimeGrant() == CXRealtimeGrant::None ? 0 : 1);
    };
    EXPECT_EXIT(refused(), testing::ExitedWithCode(0), "thread_policy_set returned 1 for period 1000000\n$");
}

// Pushing, borrowing an idle queue and firing a timer neither lock, allocate nor wait. The queue's thread,
// which sleeps until the timer's first deadline, wakes for the earlier one.
TEST(CXDispatchQueue, isUsableFromRealTimeThreads)
{
    const TestQueue queue;
    std::atomic<int> fired{0};
    const auto timer = timerFor(now() + 3600'000 * millisecond, 0, [&](auto& self) {
        const CXRealtimeScope realtime; // the handler rearms its timer
        if (++fired < 5)
            self->setTimeoutAbsolute(self->deadline() + millisecond, 0);
    });
    timer->setDispatchQueue(queue.ref());
    const CXDispatchQueue::Work work = [] {};
    queue.waitUntilIdle();
    std::atomic<bool> wasDue{false};
    const auto due = timerFor(1, 0, [&](auto&) { wasDue = true; });
    queue->dispatchSyncBypass([&] { due->setDispatchQueue(queue.ref()); });
    EXPECT_TRUE(eventually([&] { return wasDue.load(); })) << "added by a thread that borrows the queue";
    queue.waitUntilIdle();
    {
        const CXRealtimeScope realtime;
        for (int i = 0; i < 3; ++i)
            queue->dispatchSyncBypassOnce([] {});
        queue->dispatchSyncBypass([&] { timer->setTimeoutAbsolute(now() + millisecond, 0); });
    }
    EXPECT_TRUE(eventually([&] { return fired == 5; }));
    const CXRealtimeScope realtime;
    for (int i = 0; i < 100; ++i)
        queue->dispatchAsync(work);
}

// Two producers, a borrowing thread and timers use one queue: work never runs concurrently, and none is lost,
// repeated or reordered. Takes longer in a soak.
TEST(CXDispatchQueueStress, losesNothingAndRunsOneThingAtATime)
{
    constexpr size_t producerCount = 2;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(soakSecondsOr(1.5));
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
