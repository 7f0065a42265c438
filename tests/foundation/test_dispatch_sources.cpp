#include "BackOff.h"
#include "CXDispatchReceiver.h"
#include "CXDispatchTimerList.h"
#include "CXWeak.h"
#include "Eventually.h"
#include "TestQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <unistd.h>

namespace {

TEST(CXDispatchTimer, letsWorkMessagesAndOtherTimersThroughWhenItIsAlwaysDue)
{
    std::atomic<int> fires{0}, others{0}, messages{0};
    const auto alwaysDue = timerFor(1, 0, [&](const CXRef<CXDispatchTimer>& self) {
        ++fires;
        self->setTimeoutAbsolute(1, 0);
    });
    const auto other = timerFor(0, 0, [&](auto&) { ++others; });
    const CXRef<dxr::Port> port = dxr::Port::init();
    const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
    receiver->setMessageHandler([&](auto&, std::span<const std::byte>) {
        ++messages;
        port->send({}); // every message sends another
    });
    const TestQueue queue; // destroyed first, and its work with it
    alwaysDue->setDispatchQueue(queue.ref());
    other->setDispatchQueue(queue.ref());
    other->setTimeoutAbsolute(now(), 1); // armed from another thread
    receiver->setDispatchQueue(queue.ref());
    port->send({});
    const int firesAtStart = fires; // from here on, all three sources are active on the queue
    while ((others < 3 || messages < 3) && fires < firesAtStart + 10'000)
        queue.settle();
    EXPECT_GE(others, 3);
    EXPECT_GE(messages, 3);
    const int firesBefore = fires;
    while (fires < firesBefore + 3)
        queue.settle(); // messages do not delay the timer either
    receiver->cancel(); // the queue's end cancels only its timers
}

TEST(CXDispatchTimerList, firesWhatIsDueOnceInOrderAndLeavesOutMissedPeriods)
{
    CXDispatchTimerList list;
    std::string order;
    const auto timer = [&](char c, uint64_t deadline, uint64_t interval) {
        return timerFor(deadline, interval, [&order, c](auto&) { order += c; });
    };
    const auto first = timer('a', 150, 0), removed = timer('x', 150, 0);
    EXPECT_TRUE(list.add(first));
    EXPECT_FALSE(list.add(timer('b', 150, 0))) << "no earlier than the first";
    EXPECT_TRUE(list.add(timer('r', 100, 20)));
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
    EXPECT_FALSE(others.add(timer('n', 0, 0)));
    EXPECT_EQ(others.firstDeadline(), dxr::Futex::noDeadline) << "it waits for a deadline";
    EXPECT_TRUE(others.add(timer('i', 0, 3600'000 * millisecond)));
    EXPECT_GT(others.firstDeadline(), now()) << "an interval starts now";
}

// One queue adopts the other's timer while a third thread cancels it. No thread blocks another, and the timer
// is on no queue afterwards.
TEST(CXDispatchSource, endsOnNoQueueWhenItIsCancelledWhileItMoves)
{
    const TestQueue first, second, canceller;
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
    std::atomic<size_t> received{0};
    receiver->setMessageHandler([&](auto&, std::span<const std::byte> message) {
        EXPECT_TRUE(queue->isDispatchedOnCurrentThread());
        received += message.size();
    });
    const std::vector<std::byte> early(1), longMessage(100'000);
    EXPECT_EQ(port->send(early), dxr::Port::SendResult::Sent);
    receiver->setDispatchQueue(queue.ref());
    EXPECT_EQ(port->send(longMessage), dxr::Port::SendResult::Sent);
    EXPECT_TRUE(eventually([&] { return received == 100'001; }));

    receiver->cancel();
    queue.settle();
    EXPECT_FALSE(receiver->handler());
    EXPECT_EQ(port->send(early), dxr::Port::SendResult::Sent) << "the port outlives the cancellation";
    receiver = nullptr;
    EXPECT_EQ(port->send(early), dxr::Port::SendResult::Closed);
    queue.settle();
    EXPECT_EQ(received, 100'001U);
}

// The message arrives while the queue is borrowed, so the queue's thread is awake but must not deliver it
// yet. A descriptor has a message as long as it is readable.
TEST(CXDispatchReceiver, takesAMessageAlongWhenItMovesBeforeTheDelivery)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (const bool isDescriptor : {false, true}) {
        SCOPED_TRACE(isDescriptor);
        const auto port = isDescriptor ? dxr::Port::initWithDescriptor(ends[0]) : dxr::Port::init();
        std::atomic<int> count{0};
        const TestQueue first, second;
        const CXRef<CXDispatchReceiver> receiver = CXDispatchReceiver::init(port);
        receiver->setMessageHandler([&](auto&, std::span<const std::byte>) {
            EXPECT_TRUE(second->isDispatchedOnCurrentThread());
            char byte = 0; // leaves one byte: another message must arrive
            EXPECT_TRUE(!isDescriptor || read(ends[0], &byte, 1) == 1);
            ++count;
        });
        receiver->setDispatchQueue(first.ref());
        first->dispatchSyncBypass([&] {
            EXPECT_TRUE(isDescriptor ? write(ends[1], "ab", 2) == 2
                                     : port->send({}) == dxr::Port::SendResult::Sent);
            sleepForMilliseconds(50); // until the first queue's thread is awake
            receiver->setDispatchQueue(nullptr);
            receiver->setDispatchQueue(isDescriptor ? nullptr : second.ref());
        });
        first.settle();
        if (isDescriptor)
            receiver->setDispatchQueue(second.ref());
        else
            EXPECT_EQ(port->send({}), dxr::Port::SendResult::Sent);
        EXPECT_TRUE(eventually([&] { return count == 2; }));
        EXPECT_EQ(dxr::Port::initWithDescriptor(ends[0]) == nullptr, isDescriptor) << "one port a descriptor";
        receiver->cancel();
        second.settle();
    }
    close(ends[0]);
    close(ends[1]);
    EXPECT_FALSE(dxr::Port::initWithDescriptor(ends[0]));
}

} // namespace
