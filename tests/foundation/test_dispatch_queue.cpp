#include "BackOff.h"
#include "CXDispatchQueue.h"
#include "CXDispatchReceiver.h"
#include "CXDispatchTimer.h"
#include "CXDispatchTimerList.h"
#include "CXTimeBase.h"
#include "CXWeak.h"
#include "CapturedLog.h"
#include "Privileges.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Flags = uint32_t;
constexpr uint64_t millisecond = 1'000'000; // host ticks

uint64_t now()
{
    return CXTimeBase::sharedTimeBase()->absoluteTime();
}

/// A queue for one test, cancelled at its end.
class TestQueue {
public:
    TestQueue() : _queue(CXDispatchQueue::initWithName("test")) {}
    ~TestQueue()
    {
        _queue->cancel();
        while (_queue->thread() != 0)
            std::this_thread::yield();
    }
    CXDispatchQueue* operator->() const { return _queue.get(); }
    const CXRef<CXDispatchQueue>& ref() const { return _queue; }
    /// Everything that the queue had before this has run, and its thread is on its way to sleep.
    void settle() const
    {
        _queue->dispatchSync([] {});
    }

private:
    const CXRef<CXDispatchQueue> _queue;
};

/// Keeps a queue busy until open().
class Gate {
public:
    explicit Gate(const TestQueue& queue)
    {
        std::promise<void> entered;
        queue->dispatchAsync([this, &entered] {
            entered.set_value();
            _opened.get_future().wait();
        });
        entered.get_future().wait();
    }
    void open() { _opened.set_value(); }

private:
    std::promise<void> _opened;
};

std::string reasonOf(const std::function<void()>& body)
{
    try {
        body();
    } catch (const CXException& exception) {
        EXPECT_EQ(exception.name(), "CXAssertionFailure");
        return exception.reason().value_or("");
    }
    return "(none)";
}

TEST(CXDispatchQueue, runsLanesInOrderAndHousekeepingFirst)
{
    const TestQueue queue;
    std::string order;
    const auto append = [&](char c) { return [&order, c] { order += c; }; };
    Gate gate(queue);
    queue->dispatchAsync([&] {
        order += 'a';
        queue->dispatchAsync(CXDispatchHousekeepingLane, append('z'));
    });
    queue->dispatchAsync(append('b'));
    queue->dispatchAsync(CXDispatchHousekeepingLane, append('x'));
    queue->dispatchAsync(CXDispatchHousekeepingLane, append('y'));
    queue->dispatchAsync(append('c'));
    queue->dispatchAsync(nullptr);
    gate.open();
    queue.settle();
    EXPECT_EQ(order, "xyazbc");
}

TEST(CXDispatchQueue, runsImmediateWorkInPlaceOnTheQueueAndWaitsElsewhere)
{
    const TestQueue queue;
    int ran = 0;
    EXPECT_FALSE(queue->dispatchSyncImmed([&] {
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
        EXPECT_EQ(queue->owner(), queue->thread());
        EXPECT_TRUE(queue->dispatchSyncImmed([&] { ++ran; }));
        EXPECT_TRUE(queue->dispatchAsyncImmed([&] { ++ran; }));
        EXPECT_EQ(ran, 2);
    }));
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(queue->dispatchSyncImmed(nullptr));
    EXPECT_FALSE(queue->isDispatchedOnCurrentThread());
}

TEST(CXDispatchQueue, isBorrowedByABypassWhenIdleAndWaitedForWhenBusy)
{
    const TestQueue queue;
    while (queue->owner() != 0)
        std::this_thread::yield();
    const pthread_t self = pthread_self();
    pthread_t inside = 0;
    pthread_t after = 0;
    queue->dispatchSyncBypassOnce([&] {
        inside = pthread_self();
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
        queue->dispatchAsync([&] { after = pthread_self(); });
    });
    EXPECT_EQ(inside, self);
    EXPECT_FALSE(queue->isDispatchedOnCurrentThread());
    queue.settle();
    EXPECT_EQ(after, queue->thread()) << "a single bypass leaves client work to the thread";

    while (queue->owner() != 0)
        std::this_thread::yield();
    queue->dispatchSyncBypass([&] { queue->dispatchAsync([&] { after = pthread_self(); }); });
    EXPECT_EQ(after, self) << "a whole bypass runs it";

    Gate gate(queue);
    bool hasClientRun = false;
    bool hasOvertaken = false;
    queue->dispatchAsync([&] { hasClientRun = true; });
    std::thread other([&] {
        queue->dispatchSyncBypassOnce([&] {
            inside = pthread_self();
            hasOvertaken = !hasClientRun;
        });
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // for the other thread to push
    gate.open();
    other.join();
    EXPECT_EQ(inside, queue->thread());
    EXPECT_TRUE(hasOvertaken) << "it is housekeeping, and client work waited";
}

TEST(CXDispatchQueue, assertsItsRulesWithFileAndLine)
{
    const TestQueue queue;
    const CXRef<CXDispatchQueue> cancelled = CXDispatchQueue::init();
    cancelled->cancel();
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    timer->cancel();
    const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(nullptr);
    receiver->cancel();
    const auto onQueue = [&](const std::function<void()>& body) {
        std::string reason;
        queue->dispatchSync([&] { reason = reasonOf(body); });
        return reason;
    };
    const std::pair<const char*, std::string> rows[] = {
        {"synchronous, lane 2", reasonOf([&] { queue->dispatchSync(2, [] {}); })},
        {"asynchronous, lane 255", reasonOf([&] { queue->dispatchAsync(255, [] {}); })},
        {"synchronous, cancelled", reasonOf([&] { cancelled->dispatchSync([] {}); })},
        {"asynchronous, cancelled", reasonOf([&] { cancelled->dispatchAsync([] {}); })},
        {"bypass, cancelled", reasonOf([&] { cancelled->dispatchSyncBypass([] {}); })},
        {"synchronous, from the queue", onQueue([&] { queue->dispatchSync([] {}); })},
        {"bypass, from the queue", onQueue([&] { queue->dispatchSyncBypassOnce([] {}); })},
        {"a cancelled timer", reasonOf([&] { timer->setDispatchQueue(queue.ref()); })},
        {"a cancelled receiver", reasonOf([&] { receiver->setDispatchQueue(queue.ref()); })},
    };
    for (const auto& [why, reason] : rows) {
        EXPECT_TRUE(reason.starts_with("CXDispatchQueue:")) << why << ": " << reason;
        EXPECT_EQ(reason.find_first_not_of("0123456789", 16), std::string::npos) << why << ": " << reason;
    }
    const auto misplaced = [&queue] { CX_ASSERT_ON_QUEUE(queue); };
    EXPECT_NE(reasonOf(misplaced).find(" - [queue isDispatchedOnCurrentThread] "), std::string::npos);
    EXPECT_EQ(onQueue(misplaced), "(none)");
    EXPECT_NE(
        onQueue([&queue] { CX_ASSERT_NOT_ON_QUEUE(queue); }).find(" - ![queue isDispatchedOnCurrentThread] "),
        std::string::npos);
}

// Where the assertion is raised as queue work, it cannot be caught.
TEST(CXDispatchQueueDeathTest, endsTheProcessAtABrokenRule)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const message = "CXAssertionFailure: CXDispatchQueue:[0-9]+";
    const auto addATimerTwice = [](CXDispatchQueue& queue) {
        const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        queue.addTimer(timer);
        queue.addTimer(timer);
    };
    const auto destroyWhileBusy = [](CXDispatchQueue& queue) {
        queue.dispatchSync([&queue] {
            queue.release(); // ours
            queue.release(); // its thread's
        });
    };
    EXPECT_DEATH(addATimerTwice(*CXDispatchQueue::init().leak()), message);
    EXPECT_DEATH(destroyWhileBusy(*CXDispatchQueue::init().leak()), message);
}

TEST(CXDispatchQueue, finishesEarlierWorkWhenCancelledAndServesWhatIsAllowedAfterwards)
{
    const CXRef<CXDispatchQueue> queue = CXDispatchQueue::init();
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    timer->setTimeoutAbsolute(now() + 3600'000 * millisecond, 0);
    timer->setTimeoutHandler([](const CXRef<CXDispatchTimer>&) {});
    timer->setDispatchQueue(queue);
    std::atomic<int> ran{0};
    for (int i = 0; i < 100; ++i)
        queue->dispatchAsync([&] { ++ran; });
    queue->cancel();
    queue->cancel();
    while (queue->thread() != 0)
        std::this_thread::yield();
    EXPECT_EQ(ran, 100);
    EXPECT_FALSE(timer->handler()) << "timers are cancelled with their queue";
    EXPECT_FALSE(timer->queue());

    queue->dispatchSync(CXDispatchClientLane | CXDispatchAfterCancel, [&] {
        ++ran;
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
    });
    queue->dispatchAsync(CXDispatchClientLane | CXDispatchAfterCancel, [&] { ++ran; });
    EXPECT_EQ(ran, 102);
    const CXRef<CXDispatchTimer> late = CXDispatchTimer::init();
    late->setTimeoutHandler([](const CXRef<CXDispatchTimer>&) {});
    late->setDispatchQueue(queue);
    EXPECT_FALSE(late->handler()) << "a cancelled queue cancels what comes";
}

/// Whether the queue's thread ends, given far longer than it needs.
bool threadEnds(const CXDispatchQueue& queue)
{
    for (int i = 0; i < 20'000 && queue.thread() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return queue.thread() == 0;
}

TEST(CXDispatchQueue, endsItsThreadWhenItIsCancelledWhileBorrowed)
{
    const CXRef<CXDispatchQueue> fromWithin = CXDispatchQueue::init();
    fromWithin->dispatchSyncBypass([&] { fromWithin->cancel(); });
    EXPECT_TRUE(threadEnds(*fromWithin));

    const CXRef<CXDispatchQueue> fromOutside = CXDispatchQueue::init();
    fromOutside->dispatchSyncBypass([&] { std::thread([&] { fromOutside->cancel(); }).join(); });
    EXPECT_TRUE(threadEnds(*fromOutside));
}

TEST(CXDispatchTimer, letsWorkMessagesAndOtherTimersThroughWhenItIsAlwaysDue)
{
    constexpr int enough = 3;
    constexpr int fireLimit = 10'000;
    const TestQueue queue;
    std::atomic<int> fires{0};
    std::atomic<int> others{0};
    std::atomic<int> messages{0};
    const CXRef<CXDispatchTimer> restless = CXDispatchTimer::init();
    restless->setTimeoutHandler([&](const CXRef<CXDispatchTimer>& self) {
        ++fires;
        self->setTimeoutAbsolute(1, 0);
    });
    restless->setTimeoutAbsolute(1, 0);
    restless->setDispatchQueue(queue.ref());
    const CXRef<CXDispatchTimer> other = CXDispatchTimer::init();
    other->setTimeoutHandler([&](const CXRef<CXDispatchTimer>&) { ++others; });
    other->setTimeoutAbsolute(now(), 1);
    other->setDispatchQueue(queue.ref());
    const CXRef<dxr::Port> port = dxr::Port::init();
    const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
    receiver->setMessageHandler([&](const CXRef<CXDispatchReceiver>&, std::span<const std::byte>) {
        ++messages;
        port->send({}); // as restless as the timer
    });
    receiver->setDispatchQueue(queue.ref());
    port->send({});
    const int firesAtStart = fires; // from here on, everything is on the queue
    while ((others < enough || messages < enough) && fires < firesAtStart + fireLimit)
        queue.settle();
    EXPECT_GE(others, enough);
    EXPECT_GE(messages, enough);
    const int firesBefore = fires;
    while (fires < firesBefore + enough)
        queue.settle(); // nor do messages keep the timer from firing
    restless->cancel();
    other->cancel();
    receiver->cancel();
}

TEST(CXDispatchTimerList, firesWhatIsDueOnceInOrderAndLeavesOutMissedPeriods)
{
    CXDispatchTimerList list;
    std::string order;
    const auto timerFor = [&](char c, uint64_t deadline, uint64_t interval) {
        CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        timer->setTimeoutAbsolute(deadline, interval);
        timer->setTimeoutHandler([&order, c](const CXRef<CXDispatchTimer>&) { order += c; });
        return timer;
    };
    const CXRef<CXDispatchTimer> repeating = timerFor('r', 100, 20);
    const CXRef<CXDispatchTimer> first = timerFor('a', 150, 0);
    const CXRef<CXDispatchTimer> second = timerFor('b', 150, 0);
    const CXRef<CXDispatchTimer> removed = timerFor('x', 150, 0);
    EXPECT_TRUE(list.add(first));
    EXPECT_FALSE(list.add(second)) << "no earlier than the first";
    EXPECT_TRUE(list.add(repeating));
    EXPECT_FALSE(list.add(removed));
    list.remove(*removed);

    list.fireDue(99);
    EXPECT_EQ(order, "");
    list.fireDue(165);
    EXPECT_EQ(order, "rab");
    EXPECT_EQ(list.firstDeadline(), 180U) << "three periods fell out, and the grid stays";
    first->setTimeoutAbsolute(170, 0);
    EXPECT_TRUE(list.reschedule(*first));
    list.fireDue(180);
    EXPECT_EQ(order, "rabar");
    EXPECT_EQ(list.firstDeadline(), 200U);
    EXPECT_EQ(list.timers().size(), 3U) << "a one-shot timer stays until it is removed";
}

TEST(CXDispatchTimer, firesSoonerWhenAThreadThatBorrowsTheQueueSaysSo)
{
    const TestQueue queue;
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    std::promise<void> fired;
    timer->setTimeoutHandler([&](const CXRef<CXDispatchTimer>&) { fired.set_value(); });
    timer->setTimeoutAbsolute(now() + 3600'000 * millisecond, 0);
    timer->setDispatchQueue(queue.ref());
    while (queue->owner() != 0)
        std::this_thread::yield();
    queue->dispatchSyncBypass([&] { timer->setTimeoutAbsolute(now() + millisecond, 0); });
    EXPECT_EQ(fired.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    timer->cancel();
}

// Two queues, of which one adopts the other's timer while a third thread cancels it: none waits for another, and the
// timer is on no queue afterwards.
TEST(CXDispatchSource, endsOnNoQueueWhenItIsCancelledWhileItMoves)
{
    const TestQueue first;
    const TestQueue second;
    const TestQueue canceller;
    for (int round = 0; round < 3000; ++round) {
        CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        const CXWeak<CXDispatchTimer> weak(timer);
        timer->setDispatchQueue(first.ref());
        std::atomic<int> ready{0};
        const auto meet = [&ready](int pauses) {
            ++ready;
            for (int spins = 0; ready < 2; ++spins)
                spins < 10'000 ? dxr::BackOff::pause() : std::this_thread::yield();
            for (int i = 0; i < pauses; ++i)
                dxr::BackOff::pause();
        };
        canceller->dispatchAsync([&, round] {
            meet(round % 8);
            timer->cancel();
        });
        second->dispatchSync([&, round] {
            meet(round / 8 % 8);
            try {
                timer->setDispatchQueue(second.ref());
            } catch (const CXException&) { // cancelled before it moved
            }
        });
        for (const TestQueue* queue : {&canceller, &first, &second})
            queue->settle();
        ASSERT_FALSE(timer->queue()) << round;
        timer = nullptr;
        ASSERT_FALSE(weak.lock()) << "a queue still has it, round " << round;
    }
}

TEST(CXDispatchReceiver, getsEachMessageOnTheQueueUntilItIsCancelled)
{
    const TestQueue queue;
    const uint32_t own = CXDispatchReceiverReleasesSendRight | CXDispatchReceiverReleasesReceiveRight;
    CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(nullptr, own);
    const CXRef<dxr::Port> port = receiver->port();
    std::promise<void> all;
    std::string received;
    receiver->setMessageHandler(
        [&](const CXRef<CXDispatchReceiver>& self, std::span<const std::byte> message) {
            EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
            EXPECT_EQ(self->port(), port);
            received.append(reinterpret_cast<const char*>(message.data()), message.size());
            if (message.size() == 100'000)
                all.set_value();
        });
    const auto send = [&](std::string_view text) { return port->send(std::as_bytes(std::span(text))); };
    EXPECT_EQ(send("early "), dxr::Port::SendResult::Sent);
    Gate gate(queue);
    for (const char* text : {"b", "c", "d", "e"})
        EXPECT_EQ(send(text), dxr::Port::SendResult::Sent);
    EXPECT_EQ(send("too many"), dxr::Port::SendResult::Full);
    std::thread([&] { gate.open(); }).detach();
    receiver->setDispatchQueue(queue.ref());
    const std::string longMessage(100'000, 'L');
    while (send(longMessage) == dxr::Port::SendResult::Full)
        std::this_thread::yield();
    all.get_future().wait();
    EXPECT_EQ(received, "early bcde" + longMessage);

    receiver->cancel();
    queue.settle();
    EXPECT_FALSE(receiver->handler());
    EXPECT_EQ(send("nobody"), dxr::Port::SendResult::Sent) << "the port outlives the cancellation";
    receiver = nullptr;
    EXPECT_EQ(send("closed"), dxr::Port::SendResult::Closed);
    queue.settle();
    EXPECT_EQ(received.size(), 100'010U);
}

TEST(CXDispatchReceiver, hearsOfADescriptorAsLongAsItIsReadable)
{
    const TestQueue queue;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const CXRef<dxr::Port> port = dxr::Port::initWithDescriptor(ends[0]);
    ASSERT_TRUE(port);
    EXPECT_FALSE(dxr::Port::initWithDescriptor(ends[0])) << "one port a descriptor";
    const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
    std::promise<void> all;
    std::string received;
    receiver->setMessageHandler([&](const CXRef<CXDispatchReceiver>&, std::span<const std::byte>) {
        char byte = 0;
        ASSERT_EQ(read(ends[0], &byte, 1), 1); // leaves some: the next message must come
        received += byte;
        if (received == "abc")
            all.set_value();
    });
    receiver->setDispatchQueue(queue.ref());
    ASSERT_EQ(write(ends[1], "abc", 3), 3);
    all.get_future().wait();
    receiver->cancel();
    queue.settle();
    port->close();
    close(ends[0]);
    close(ends[1]);
}

// The message arrives while its queue is borrowed, so that the queue's thread is awake but may not deliver it yet.
TEST(CXDispatchReceiver, takesAMessageAlongWhenItMovesBeforeTheDelivery)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const CXRef<dxr::Port> ports[] = {dxr::Port::init(), dxr::Port::initWithDescriptor(ends[0])};
    for (const CXRef<dxr::Port>& port : ports) {
        const bool isDescriptor = port == ports[1];
        const TestQueue first;
        const TestQueue second;
        const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
        std::promise<bool> wasOnSecond;
        receiver->setMessageHandler([&](const CXRef<CXDispatchReceiver>& self, std::span<const std::byte>) {
            self->cancel();
            wasOnSecond.set_value(second->isDispatchedOnCurrentThread());
        });
        receiver->setDispatchQueue(first.ref());
        first->dispatchSyncBypass([&] {
            if (isDescriptor)
                EXPECT_EQ(write(ends[1], "x", 1), 1);
            else
                EXPECT_EQ(port->send({}), dxr::Port::SendResult::Sent);
            std::this_thread::sleep_for(
                std::chrono::milliseconds(50)); // for the first queue's thread to wake
            receiver->setDispatchQueue(nullptr);
            receiver->setDispatchQueue(isDescriptor ? nullptr : second.ref());
        });
        first.settle();
        if (isDescriptor)
            receiver->setDispatchQueue(second.ref());
        std::future<bool> result = wasOnSecond.get_future();
        ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready)
            << "descriptor: " << isDescriptor;
        EXPECT_TRUE(result.get()) << "descriptor: " << isDescriptor;
        second.settle();
    }
    ports[1]->close();
    close(ends[0]);
    close(ends[1]);
}

/// Whether the thread runs under real-time scheduling, or a refusal was logged.
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
    const CXRef<CXDispatchTimer> restless = CXDispatchTimer::init();
    restless->setTimeoutHandler([](const CXRef<CXDispatchTimer>& self) { self->setTimeoutAbsolute(1, 0); });
    restless->setTimeoutAbsolute(1, 0);
    std::thread other;
    while (queue->owner() != 0)
        std::this_thread::yield();
    queue->dispatchSyncBypass([&] {
        restless->setDispatchQueue(queue.ref());
        other = std::thread([&] {
            queue->setRealTime();
            EXPECT_TRUE(isSettled(queue->thread(), log));
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // for the other thread to push
    });
    other.join();
    restless->cancel();

    const CapturedLog laterLog;
    const TestQueue later;
    later->dispatchSyncBypass([&] { later->setRealTime(); }); // cannot wait for the queue's own thread
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

// Pushing, borrowing an idle queue and firing a timer: no lock, no allocation, no wait.
TEST(CXDispatchQueue, isFitForRealTimeThreads)
{
    const TestQueue queue;
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    std::atomic<int> fired{0};
    timer->setTimeoutHandler([&](const CXRef<CXDispatchTimer>& self) {
        const CXRealtimeScope realtime; // a handler that arms its timer again
        if (++fired < 5)
            self->setTimeoutAbsolute(self->deadline() + millisecond, 0);
    });
    timer->setDispatchQueue(queue.ref());
    const CXDispatchQueue::Work work = [] {};
    while (queue->owner() != 0)
        std::this_thread::yield();
    {
        const CXRealtimeScope realtime;
        for (int i = 0; i < 3; ++i)
            queue->dispatchSyncBypassOnce([] {});
        queue->dispatchSyncBypass([&] { timer->setTimeoutAbsolute(now() + millisecond, 0); });
        for (int i = 0; i < 100; ++i)
            queue->dispatchAsync(work);
    }
    while (fired < 5)
        queue.settle();
    timer->cancel();
}

/// How long the stress below runs: longer when the environment says so.
std::chrono::milliseconds stressTime()
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::chrono::seconds(std::atoi(seconds)) : std::chrono::milliseconds(1500);
}

// Two producers, a borrowing thread, timers and a receiver on one queue: nothing runs beside anything else,
// nothing is lost, done twice or out of order, and lane 0 waits for at most one item of lane 1.
TEST(CXDispatchQueueStress, keepsItsPromisesWhileEverybodyUsesItAtOnce)
{
    constexpr int producerCount = 2;
    const TestQueue queue;
    uint64_t inside = 0;              // plain on purpose: only the queue's order protects it
    uint64_t entries = 0;             // the same
    std::atomic<uint64_t> started{0}; // items of lane 1
    std::atomic<uint64_t> expected{0};
    std::atomic<uint64_t> outOfOrder{0};
    std::atomic<uint64_t> overlaps{0};
    std::atomic<uint64_t> late{0};
    const auto enter = [&](auto&& body) {
        if (++inside != 1)
            ++overlaps;
        ++entries;
        body();
        --inside;
    };

    std::vector<CXRef<CXDispatchTimer>> timers;
    std::atomic<uint64_t> fires{0};
    for (const uint64_t interval : {millisecond, 3 * millisecond / 2, 700'000UL}) {
        const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        timer->setTimeoutAbsolute(now(), interval);
        timer->setTimeoutHandler([&](const CXRef<CXDispatchTimer>&) { enter([&] { ++fires; }); });
        timer->setDispatchQueue(queue.ref());
        timers.push_back(timer);
    }
    const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(dxr::Port::init(100));
    uint64_t nextMessage = 0;
    receiver->setMessageHandler([&](const CXRef<CXDispatchReceiver>&, std::span<const std::byte> message) {
        enter([&] {
            uint64_t number = 0;
            std::memcpy(&number, message.data(), sizeof number);
            if (number != nextMessage++)
                ++outOfOrder;
        });
    });
    receiver->setDispatchQueue(queue.ref());

    const auto end = std::chrono::steady_clock::now() + stressTime();
    const auto isOver = [end] { return std::chrono::steady_clock::now() >= end; };
    std::vector<std::thread> threads;
    uint64_t next[producerCount] = {};
    std::atomic<uint64_t> waiting[producerCount] = {};
    for (int p = 0; p < producerCount; ++p) {
        threads.emplace_back([&, p] {
            uint64_t pushed = 0;
            for (uint64_t i = 0; !isOver(); ++i) {
                while (waiting[p] > 10'000)
                    std::this_thread::yield(); // bounded, so that timers get their turn
                ++waiting[p];
                const uint64_t number = pushed++;
                queue->dispatchAsync([&, p, number] {
                    ++started;
                    enter([&] {
                        if (number != next[p]++)
                            ++outOfOrder;
                    });
                    --waiting[p];
                });
                if (i % 64 == 0) { // urgent work overtakes all that
                    auto* const startedAtPush = new std::atomic<uint64_t>(UINT64_MAX);
                    queue->dispatchAsync(CXDispatchHousekeepingLane, [&, startedAtPush] {
                        const uint64_t before = startedAtPush->exchange(0);
                        if (before != UINT64_MAX && started - before > 1)
                            ++late;
                        if (before != UINT64_MAX)
                            delete startedAtPush;
                        enter([] {});
                    });
                    if (startedAtPush->exchange(started) == 0)
                        delete startedAtPush; // it has run already
                    ++expected;
                }
                if (i % 256 == 0)
                    queue->dispatchSync([&] { enter([] {}); }), ++expected;
            }
            expected += pushed;
        });
    }
    threads.emplace_back([&] {
        for (uint64_t i = 0; !isOver(); ++i) {
            if (i % 8 == 0)
                queue->dispatchSyncBypass([&] { enter([] {}); });
            else
                queue->dispatchSyncBypassOnce([&] { enter([] {}); });
            ++expected;
            std::this_thread::sleep_for(std::chrono::microseconds(i % 128));
        }
    });
    uint64_t sent = 0;
    while (!isOver()) {
        if (receiver->port()->send(std::as_bytes(std::span(&sent, 1))) == dxr::Port::SendResult::Sent)
            ++sent;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const CXRef<CXDispatchTimer>& timer : timers)
        timer->cancel();
    uint64_t seen = 0;
    for (int i = 0; i < 1000 && seen < sent; ++i) {
        queue->dispatchSync([&] { seen = nextMessage; });
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    receiver->cancel();
    queue.settle();
    EXPECT_EQ(seen, sent);
    EXPECT_EQ(entries, expected + fires + sent);
    EXPECT_EQ(overlaps, 0U);
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_EQ(late, 0U);
    EXPECT_GT(fires, 100U) << "timers get their turn";
    std::printf("%lu items, %lu fires, %lu messages\n", expected.load(), fires.load(), sent);
}

} // namespace
