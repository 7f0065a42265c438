#include "CXDispatchQueue.h"

#include "BackOff.h"
#include "CXDispatchReceiver.h"
#include "CXDispatchTimer.h"
#include "CXThreadSetRealtime.h"
#include "HostClock.h"
#include "Reply.h"
#include "TFA.h"
#include "Thread.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <vector>

using platform::Futex;
using platform::HostClock;
using platform::PortSet;

namespace {

constexpr uint32_t laneMask = 0xFF;
constexpr uint32_t cancelRequested = 1;
constexpr uint32_t cancelFinished = 2;
constexpr size_t itemsAtHand = 1000;
constexpr uint32_t plentyOfItems = 64;

void assertThat(bool condition, long line)
{
    if (!condition)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", line);
}

/// noexcept: a callback that throws ends the process here, where its stack can still be seen.
void run(CXDispatchQueue::BorrowedWork block) noexcept
{
    if (block)
        block();
}

/// a + b, or the latest moment there is.
uint64_t laterBy(uint64_t a, uint64_t b) noexcept
{
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? Futex::noDeadline : sum;
}

} // namespace

/// A piece of work on its way: a link, with what there is to know about the item in the bits that an address
/// leaves free. So four asynchronous items fit into the cache line that has to go from thread to thread.
struct alignas(8) CXDispatchQueue::Item {
    Item(uint32_t lane, bool isAsynchronous) noexcept : _word(lane | (isAsynchronous ? asynchronousBit : 0))
    {}
    uint32_t lane() const noexcept { return static_cast<uint32_t>(_word & laneBit); }
    /// Which of the two below it is.
    bool isAsynchronous() const noexcept { return (_word & asynchronousBit) != 0; }
    /// On the stack: pushed before; in a lane: to run after.
    Item* next() const noexcept { return reinterpret_cast<Item*>(_word & ~flagBits); } // NOLINT: bits apart
    void setNext(Item* item) noexcept { _word = (_word & flagBits) | reinterpret_cast<uintptr_t>(item); }

private:
    static constexpr uintptr_t laneBit = 1;
    static constexpr uintptr_t asynchronousBit = 2;
    static constexpr uintptr_t flagBits = laneBit | asynchronousBit;
    uintptr_t _word;
};

/// From the fast allocator, gone after it has run.
struct CXDispatchQueue::AsynchronousItem : Item {
    AsynchronousItem(uint32_t itemLane, const Work& work) noexcept : Item(itemLane, true), block(work) {}
    Work block;
};

/// On the stack of a thread that waits for it.
struct CXDispatchQueue::SynchronousItem : Item {
    SynchronousItem(uint32_t itemLane, BorrowedWork work) noexcept : Item(itemLane, false), block(work) {}
    const BorrowedWork block;
    platform::Reply reply;
};

/// A timer on the queue.
class CXDispatchQueue::TimerEntry final : public CXTFAObject {
public:
    static CXRef<TimerEntry> initWithTimer(const CXRef<CXDispatchTimer>& timer)
    {
        return CXRef<TimerEntry>::adopt(new TimerEntry(timer));
    }

    /// Takes over what the timer is set to, as if it had never been scheduled.
    void reload() noexcept
    {
        deadline = 0;
        absoluteStart = timer->deadline();
        interval = timer->interval();
    }

    /// After a fire: the next deadline that lies after `now`; none for a one-shot timer.
    void advance(uint64_t now) noexcept
    {
        if (interval == 0) {
            deadline = 0;
            absoluteStart = 0;
            return;
        }
        // The first multiple past `now`: periods that were missed are left out.
        deadline = laterBy(now, interval - (now - deadline) % interval);
        if (absoluteStart != 0)
            absoluteStart = deadline;
    }

    const CXRef<CXDispatchTimer> timer;
    TimerEntry* previous = nullptr;
    TimerEntry* next = nullptr;
    bool isLinked = false;
    uint64_t deadline = 0;      // host ticks; 0: not scheduled
    uint64_t absoluteStart = 0; // host ticks; 0: none
    uint64_t interval = 0;      // host ticks; 0: one-shot
    uint64_t pass = 0;          // when it was called last

private:
    explicit TimerEntry(const CXRef<CXDispatchTimer>& entryTimer) : timer(entryTimer) { reload(); }
    ~TimerEntry() override = default;
};

// --- Life ---

CXRef<CXDispatchQueue> CXDispatchQueue::initWithName(std::optional<std::string> name)
{
    // Once for all queues: the first push from an IO thread must not be what asks the system for the first
    // chunk. Where that fails, a push will say so.
    [[maybe_unused]] static const bool hasItems = TFA_reserve(sizeof(AsynchronousItem), itemsAtHand);
    CXRef<CXDispatchQueue> queue = CXRef<CXDispatchQueue>::adopt(new CXDispatchQueue(std::move(name)));
    platform::Reply started;
    try {
        platform::Thread(queue->_name.value_or("CXDispatchQueue"), [queue, &started] {
            queue->_thread.store(pthread_self());
            started.send();
            queue->_workloop();
        }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    started.wait();
    return queue;
}

CXDispatchQueue::CXDispatchQueue(std::optional<std::string> name)
    : _name(std::move(name)), _portset(PortSet::init())
{}

CXDispatchQueue::~CXDispatchQueue()
{
    assertThat(owner() == 0, __LINE__);
    assertThat(_queue.load() == nullptr, __LINE__);
}

void CXDispatchQueue::_workloop()
{
    while ((_cancelled.load() & cancelFinished) == 0) {
        const uint64_t deadline = _nextDeadline.load();
        if (deadline != Futex::noDeadline && deadline <= HostClock::nowTicks()) {
            _waitForRight();
            _fireTimers();
            _drain();
            continue;
        }
        const PortSet::Event event = _portset->waitForEvent(deadline);
        if (event.kind == PortSet::Event::Kind::Timeout)
            continue;
        if (event.kind == PortSet::Event::Kind::Message) {
            _waitForRight();
            _deliver(event);
        }
        if (std::exchange(_wantsRealTime, false))
            CXThreadSetRealtime();
        _drain();
    }
    _thread.store(0);
    if (_portset->close())
        _drain(); // came after the last drain, before the door was shut
}

void CXDispatchQueue::cancel()
{
    if ((_cancelled.fetch_or(cancelRequested) & cancelRequested) != 0)
        return;
    dispatchAsyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [self = CXRef(this)] {
        self->_cancelTimers();
        self->dispatchAsync(CXDispatchClientLane | CXDispatchAfterCancel,
                            [self] { self->_cancelled.fetch_or(cancelFinished); });
    });
}

void CXDispatchQueue::setRealTime()
{
    dispatchSyncImmed(CXDispatchHousekeepingLane, [this] {
        if (_isQueueThread()) {
            CXThreadSetRealtime();
        } else { // a thread that has borrowed the queue
            _wantsRealTime = true;
            _needsThread = true;
        }
    });
}

// --- Dispatching ---

void CXDispatchQueue::_checkLane(uint32_t flags) const
{
    assertThat((flags & laneMask) <= CXDispatchClientLane, __LINE__);
}

void CXDispatchQueue::_checkNotCancelled(uint32_t flags) const
{
    assertThat((flags & CXDispatchAfterCancel) != 0 || (_cancelled.load() & cancelRequested) == 0, __LINE__);
}

void CXDispatchQueue::_checkNotOwner() const
{
    assertThat(!isDispatchedOnCurrentThread(), __LINE__);
}

void CXDispatchQueue::dispatchSync(uint32_t flags, BorrowedWork block)
{
    _checkLane(flags);
    _checkNotCancelled(flags);
    _checkNotOwner();
    SynchronousItem item(flags & laneMask, block);
    if (_push(item))
        _wakeThread();
    item.reply.wait();
}

void CXDispatchQueue::dispatchAsync(uint32_t flags, const Work& block)
{
    _checkLane(flags);
    _checkNotCancelled(flags);
    void* const memory = TFA_malloc(sizeof(AsynchronousItem));
    assertThat(memory != nullptr, __LINE__);
    if (_push(*new (memory) AsynchronousItem(flags & laneMask, block)))
        _wakeThread();
}

bool CXDispatchQueue::dispatchSyncImmed(uint32_t flags, BorrowedWork block)
{
    const bool isHere = isDispatchedOnCurrentThread();
    if (block && isHere)
        block();
    else if (block)
        dispatchSync(flags, block);
    return isHere;
}

bool CXDispatchQueue::dispatchAsyncImmed(uint32_t flags, const Work& block)
{
    const bool isHere = isDispatchedOnCurrentThread();
    if (block && isHere)
        block();
    else if (block)
        dispatchAsync(flags, block);
    return isHere;
}

void CXDispatchQueue::dispatchSyncBypass(BorrowedWork block)
{
    _bypass(Drain::UntilIdle, block);
}

void CXDispatchQueue::dispatchSyncBypassOnce(BorrowedWork block)
{
    _bypass(Drain::Once, block);
}

bool CXDispatchQueue::dispatchSyncBypassOnceIfIdle(BorrowedWork block)
{
    return _bypassIfIdle(Drain::Once, block);
}

bool CXDispatchQueue::_bypassIfIdle(Drain drain, BorrowedWork block)
{
    _checkNotCancelled(0);
    _checkNotOwner();
    Item* idle = nullptr;
    if (!_queue.compare_exchange_strong(idle, mark()))
        return false;
    // As if an item had been pushed and taken at once, less two exchanges.
    _becomeOwner();
    run(block);
    drain == Drain::Once ? _stopEarly() : _runUntilIdle();
    return true;
}

void CXDispatchQueue::_bypass(Drain drain, BorrowedWork block)
{
    if (_bypassIfIdle(drain, block))
        return;
    SynchronousItem item(CXDispatchHousekeepingLane, block);
    if (_push(item)) {
        // Idle after all. The item has to go through the lanes now, with what came after it; its reply is
        // sent to a thread that need not wait.
        drain == Drain::Once ? _drainOnce() : _drain();
    }
    item.reply.wait();
}

// --- The right to drain ---

/// Leaves `item` on the stack. Whether the right to drain came with it: the queue was idle.
bool CXDispatchQueue::_push(Item& item) noexcept
{
    const bool isUrgent = item.lane() == CXDispatchHousekeepingLane;
    platform::BackOff backOff;
    Item* head = _queue.load(std::memory_order_relaxed);
    const auto linkTo = [&item](Item* before) { item.setNext(before == mark() ? nullptr : before); };
    for (linkTo(head); !_queue.compare_exchange_strong(head, &item); linkTo(head)) {
        backOff.wait();
        head = _queue.load(std::memory_order_relaxed);
    }
    // From here on the item may be gone.
    if (head != nullptr && isUrgent)
        _urgent.store(true, std::memory_order_release);
    return head == nullptr;
}

/// Sends the right to drain to the queue's thread, or uses it here when that thread has ended.
void CXDispatchQueue::_wakeThread()
{
    if (!_portset->signal())
        _drain();
}

/// On the queue's thread: takes the right to drain, from whoever has it if need be.
void CXDispatchQueue::_waitForRight() noexcept
{
    Item* idle = nullptr;
    if (_queue.compare_exchange_strong(idle, mark()))
        return;
    _threadWaits.store(true);
    idle = nullptr;
    if (!_queue.compare_exchange_strong(idle, mark()))
        _portset->waitForSignal();
    _threadWaits.store(false);
}

void CXDispatchQueue::_becomeOwner()
{
    assertThat(owner() == 0, __LINE__);
    _owner.store(pthread_self(), std::memory_order_relaxed);
}

/// With the right: runs everything, in turn, and what arrives meanwhile.
void CXDispatchQueue::_drain()
{
    _becomeOwner();
    _runUntilIdle();
}

/// With the right: runs what lane 0 has and one item of lane 1, and leaves the rest to the queue's thread.
void CXDispatchQueue::_drainOnce()
{
    _becomeOwner();
    _takeArrivals();
    _runPass();
    _stopEarly();
}

void CXDispatchQueue::_runUntilIdle()
{
    for (;;) {
        if (_areLanesEmpty())
            _letItemsGather();
        if (_areLanesEmpty() || _urgent.load(std::memory_order_relaxed))
            _takeArrivals();
        if (!_areLanesEmpty())
            _runPass();
        else if (_giveUpIfIdle())
            return;
    }
}

void CXDispatchQueue::_runPass() noexcept
{
    while (Item* const item = _next(CXDispatchHousekeepingLane))
        _invoke(item);
    if (Item* const item = _next(CXDispatchClientLane))
        _invoke(item);
}

/// As the owner: gives the right up, or over to the queue's thread if anything is left.
void CXDispatchQueue::_stopEarly()
{
    if (!_areLanesEmpty() || !_giveUpIfIdle())
        _handOver();
}

/// As the owner, with empty lanes: whether nothing had arrived, and the right is gone.
bool CXDispatchQueue::_giveUpIfIdle()
{
    if (_needsThread && !_isQueueThread()) {
        _handOver();
        return true;
    }
    _needsThread = false;
    _spentItems.giveBack();
    const pthread_t self = owner();
    _owner.store(0, std::memory_order_relaxed);
    Item* head = mark();
    if (!_queue.compare_exchange_strong(head, nullptr)) {
        _owner.store(self, std::memory_order_relaxed);
        return false;
    }
    if (_threadWaits.load()) {
        Item* idle = nullptr;
        if (_queue.compare_exchange_strong(idle, mark()))
            _wakeThread();
    }
    return true;
}

/// As the owner: sends the right to the queue's thread, with what is in the lanes and on the stack.
void CXDispatchQueue::_handOver()
{
    _needsThread = false;
    _spentItems.giveBack();
    _owner.store(0, std::memory_order_relaxed);
    _wakeThread();
}

/// Waits for a moment, a small part of a microsecond, when items come one close behind the other but fewer than would
/// keep this thread busy. Taking each as it comes would fight the pushing threads for the head, and both would spend
/// their time on that.
void CXDispatchQueue::_letItemsGather() const noexcept
{
    constexpr uint32_t pauses = 8;
    if (_arrivedTogether < 2 || _arrivedTogether >= plentyOfItems)
        return;
    for (uint32_t i = 0; i < pauses; ++i)
        platform::BackOff::pause();
}

/// Moves everything on the stack to the lanes, in order of arrival.
void CXDispatchQueue::_takeArrivals() noexcept
{
    // Before the exchange: what is raised after it stays raised.
    _urgent.store(false, std::memory_order_relaxed);
    Item* newest = _queue.exchange(mark());
    _arrivedTogether = 0;
    if (newest == mark())
        return;
    Lane arrivals[2];
    while (newest !=
           nullptr) { // one pass: most of the time goes into fetching the items from the other processor
        Item* const item = newest;
        newest = item->next();
        ++_arrivedTogether;
        Lane& lane = arrivals[item->lane()];
        if (lane.last == nullptr)
            lane.last = item;
        item->setNext(lane.first);
        lane.first = item;
    }
    for (uint32_t lane : {CXDispatchHousekeepingLane, CXDispatchClientLane})
        _append(arrivals[lane], lane);
}

/// Puts a chain of items behind what the lane has.
void CXDispatchQueue::_append(const Lane& chain, uint32_t index) noexcept
{
    if (chain.first == nullptr)
        return;
    Lane& lane = _lanes[index];
    if (lane.last != nullptr)
        lane.last->setNext(chain.first);
    else
        lane.first = chain.first;
    lane.last = chain.last;
}

/// Takes the first item of a lane; null when it is empty.
CXDispatchQueue::Item* CXDispatchQueue::_next(uint32_t index) noexcept
{
    Lane& lane = _lanes[index];
    Item* const item = lane.first;
    if (item == nullptr)
        return nullptr;
    lane.first = item->next();
    if (lane.first == nullptr)
        lane.last = nullptr;
    return item;
}

/// Runs an item, which is gone afterwards.
void CXDispatchQueue::_invoke(Item* item) noexcept
{
    if (item->isAsynchronous()) {
        auto* const asynchronous = static_cast<AsynchronousItem*>(item);
        if (asynchronous->block)
            asynchronous->block();
        asynchronous->~AsynchronousItem();
        _spentItems.add(asynchronous);
    } else {
        auto* const synchronous = static_cast<SynchronousItem*>(item);
        run(synchronous->block);
        synchronous->reply.send();
    }
}

// --- Receivers ---

void CXDispatchQueue::addReceiver(const CXRef<CXDispatchReceiver>& receiver)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        if (_isCancelled()) {
            receiver->cancel();
        } else if (const CXRef<platform::Port>& port = receiver->port()) {
            port->setContext(receiver);
            _portset->add(*port);
        }
    });
}

void CXDispatchQueue::removeReceiver(const CXRef<CXDispatchReceiver>& receiver)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        const CXRef<platform::Port>& port = receiver->port();
        if (!port || port->context() != receiver)
            return;
        _portset->remove(*port);
        port->setContext(nullptr);
    });
}

/// With the right, on the queue's thread.
void CXDispatchQueue::_deliver(const PortSet::Event& event) noexcept
{
    // Removed since the message was taken: then nobody wants it.
    const auto receiver = CXRefCast<CXDispatchReceiver>(event.port->context());
    if (!receiver)
        return;
    _becomeOwner();
    if (const CXDispatchReceiver::Handler handler = receiver->handler())
        handler(receiver, event.message);
    event.port->messageHandled();
    _owner.store(0, std::memory_order_relaxed);
}

// --- Timers ---

void CXDispatchQueue::addTimer(const CXRef<CXDispatchTimer>& timer)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        if (_isCancelled())
            return timer->cancel();
        assertThat(!_timerMap.contains(timer.get()), __LINE__);
        CXRef<TimerEntry> entry = TimerEntry::initWithTimer(timer);
        assertThat(bool(entry), __LINE__);
        _schedule(*_timerMap.emplace(timer.get(), std::move(entry)).first->second);
    });
}

void CXDispatchQueue::removeTimer(const CXRef<CXDispatchTimer>& timer)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        const auto found = _timerMap.find(timer.get());
        if (found == _timerMap.end())
            return;
        _unschedule(*found->second);
        const CXRef<TimerEntry> entry = std::move(found->second); // its end may come back here: after the map
        _timerMap.erase(found);
    });
}

void CXDispatchQueue::updateTimer(const CXRef<CXDispatchTimer>& timer)
{
    const auto update = [this, timer] {
        const auto found = _timerMap.find(timer.get());
        if (found == _timerMap.end())
            return;
        _unschedule(*found->second);
        found->second->reload();
        _schedule(*found->second);
    };
    if (isDispatchedOnCurrentThread())
        update(); // no block is made: a handler on a real-time thread arms its timer again
    else
        dispatchAsync(CXDispatchHousekeepingLane | CXDispatchAfterCancel, update);
}

void CXDispatchQueue::_cancelTimers()
{
    std::vector<CXRef<CXDispatchTimer>> timers; // cancelling changes the map
    for (const auto& [timer, entry] : _timerMap)
        timers.push_back(entry->timer);
    for (const CXRef<CXDispatchTimer>& timer : timers)
        timer->cancel();
}

/// With the right, on the queue's thread: calls what is due, each once. A handler that arms its timer in the past
/// again and again is called between the queue's work, not instead of it.
void CXDispatchQueue::_fireTimers() noexcept
{
    _becomeOwner();
    const uint64_t now = HostClock::nowTicks();
    ++_timerPass;
    while (const CXRef<TimerEntry> entry = _nextDue(now)) { // a reference: its handler may remove it
        entry->pass = _timerPass;
        _unschedule(*entry);
        entry->advance(now);
        _schedule(*entry);
        if (const CXDispatchTimer::Handler handler = entry->timer->handler())
            handler(entry->timer);
    }
    _owner.store(0, std::memory_order_relaxed);
}

/// The first timer that is due and has not been called in this pass; null when there is none.
CXRef<CXDispatchQueue::TimerEntry> CXDispatchQueue::_nextDue(uint64_t now) const noexcept
{
    TimerEntry* entry = _firstTimer;
    while (entry != nullptr && entry->pass == _timerPass)
        entry = entry->next;
    return CXRef<TimerEntry>(entry != nullptr && entry->deadline <= now ? entry : nullptr);
}

/// Enters the entry into the list by its deadline, or its start, or its interval from now; without any of
/// them it waits for an update.
void CXDispatchQueue::_schedule(TimerEntry& entry) noexcept
{
    if (entry.deadline == 0)
        entry.deadline = entry.absoluteStart;
    if (entry.deadline == 0 && entry.interval != 0)
        entry.deadline = laterBy(HostClock::nowTicks(), entry.interval);
    if (entry.deadline == 0)
        return;
    TimerEntry* before = _lastTimer;
    while (before != nullptr && before->deadline > entry.deadline)
        before = before->previous;
    entry.previous = before;
    entry.next = before != nullptr ? before->next : _firstTimer;
    (entry.next != nullptr ? entry.next->previous : _lastTimer) = &entry;
    (before != nullptr ? before->next : _firstTimer) = &entry;
    entry.isLinked = true;
    _publishFirstDeadline();
}

void CXDispatchQueue::_unschedule(TimerEntry& entry) noexcept
{
    if (!entry.isLinked)
        return;
    (entry.previous != nullptr ? entry.previous->next : _firstTimer) = entry.next;
    (entry.next != nullptr ? entry.next->previous : _lastTimer) = entry.previous;
    entry.previous = nullptr;
    entry.next = nullptr;
    entry.isLinked = false;
    _publishFirstDeadline();
}

void CXDispatchQueue::_publishFirstDeadline() noexcept
{
    const uint64_t first = _firstTimer != nullptr ? _firstTimer->deadline : Futex::noDeadline;
    if (_nextDeadline.exchange(first) > first)
        _needsThread = true; // it may be asleep until later
}
