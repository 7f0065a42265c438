#include "BackOff.h"
#include "CXDispatchReceiver.h"
#include "CXDispatchTimer.h"
#include "CXDispatchTimerList.h"
#include "CXWeak.h"
#include "Eventually.h"
#include "TestQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <unistd.h>

namespace {

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
        port->send({}); // every message sends another
    });
    receiver->setDispatchQueue(queue.ref());
    port->send({});
    const int firesAtStart = fires; // from here on, all three sources are active on the queue
    while ((others < enough || messages < enough) && fires < firesAtStart + fireLimit)
        queue.settle();
    EXPECT_GE(others, enough);
    EXPECT_GE(messages, enough);
    const int firesBefore = fires;
    while (fires < firesBefore + enough)
        queue.settle(); // messages do not delay the timer either
    restless->cancel();
    other->cancel();
    receiver->cancel();
}

TEST(CXDispatchTimer, firesOnAQueueThatHasNothingElseToDo)
{
    for (const bool isArmedFirst : {true, false}) {
        SCOPED_TRACE(isArmedFirst);
        const TestQueue queue;
        queue.settle();
        sleepForMilliseconds(20); // until its thread sleeps
        std::atomic<int> fired{0};
        const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        timer->setTimeoutHandler([&](auto&) { ++fired; });
        const auto arm = [&] { timer->setTimeoutAbsolute(now() + 1'000'000, 0); };
        if (isArmedFirst)
            arm();
        timer->setDispatchQueue(queue.ref());
        if (!isArmedFirst)
            arm();
        EXPECT_TRUE(eventually([&] { return fired == 1; }));
        timer->cancel();
        queue.settle();
    }
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

    CXDispatchTimerList others;
    EXPECT_FALSE(others.add(timerFor('n', 0, 0)));
    EXPECT_EQ(others.firstDeadline(), dxr::Futex::noDeadline) << "it waits for a deadline";
    EXPECT_TRUE(others.add(timerFor('i', 0, 3600'000 * millisecond)));
    EXPECT_GT(others.firstDeadline(), now()) << "an interval starts now";
}

// One queue adopts the other's timer while a third thread cancels it. No thread blocks another, and the timer
// is on no queue afterwards.
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
            } catch (const CXException&) { // the timer was cancelled before it moved
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
    for (const char* text : {"early ", "b", "c"})
        EXPECT_EQ(send(text), dxr::Port::SendResult::Sent);
    receiver->setDispatchQueue(queue.ref());
    const std::string longMessage(100'000, 'L');
    EXPECT_EQ(send(longMessage), dxr::Port::SendResult::Sent);
    all.get_future().wait();
    EXPECT_EQ(received, "early bc" + longMessage);

    receiver->cancel();
    queue.settle();
    EXPECT_FALSE(receiver->handler());
    EXPECT_EQ(send("unread"), dxr::Port::SendResult::Sent) << "the port outlives the cancellation";
    receiver = nullptr;
    EXPECT_EQ(send("closed"), dxr::Port::SendResult::Closed);
    queue.settle();
    EXPECT_EQ(received.size(), 100'008U);
}

// The message arrives while the queue is borrowed, so the queue's thread is awake but must not deliver it
// yet. A descriptor has a message as long as it is readable.
TEST(CXDispatchReceiver, takesAMessageAlongWhenItMovesBeforeTheDelivery)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const CXRef<dxr::Port> ports[] = {dxr::Port::init(), dxr::Port::initWithDescriptor(ends[0])};
    for (const CXRef<dxr::Port>& port : ports) {
        const bool isDescriptor = port == ports[1];
        SCOPED_TRACE(isDescriptor);
        const TestQueue first;
        const TestQueue second;
        const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
        std::promise<void> done;
        int count = 0;
        receiver->setMessageHandler([&](const CXRef<CXDispatchReceiver>&, std::span<const std::byte>) {
            EXPECT_TRUE(second->isDispatchedOnCurrentThread());
            char byte = 0; // leaves one byte: another message must arrive
            EXPECT_TRUE(!isDescriptor || read(ends[0], &byte, 1) == 1);
            if (++count == 2)
                done.set_value();
        });
        receiver->setDispatchQueue(first.ref());
        first->dispatchSyncBypass([&] {
            if (isDescriptor)
                EXPECT_EQ(write(ends[1], "ab", 2), 2);
            else
                EXPECT_EQ(port->send({}), dxr::Port::SendResult::Sent);
            sleepForMilliseconds(50); // until the first queue's thread is awake
            receiver->setDispatchQueue(nullptr);
            receiver->setDispatchQueue(isDescriptor ? nullptr : second.ref());
        });
        first.settle();
        if (isDescriptor)
            receiver->setDispatchQueue(second.ref());
        else
            EXPECT_EQ(port->send({}), dxr::Port::SendResult::Sent);
        EXPECT_EQ(done.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
        receiver->cancel();
        second.settle();
    }
    ports[1]->close();
    close(ends[0]);
    close(ends[1]);
}

} // namespace
