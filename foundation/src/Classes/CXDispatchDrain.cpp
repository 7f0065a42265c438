#include "CXDispatchDrain.h"

#include "BackOff.h"
#include "CXErrorAdditions.h"
#include "Reply.h"
#include "TFA.h"

#include <new>

namespace {

constexpr uint32_t urgentLane = 0;
constexpr uint32_t clientLane = 1;
constexpr uint32_t plentyOfItems = 64;

/// noexcept: work that throws ends the process here, while its stack is still intact.
void run(CXDispatchDrain::BorrowedWork block) noexcept
{
    if (block)
        block();
}

} // namespace

/// A pending work item: a link to the next item, with flags in the low bits that an aligned address leaves
/// free. So four asynchronous items fit into one of the cache lines that move between processors.
struct alignas(8) CXDispatchDrain::Item {
    Item(uint32_t lane, RunBy runBy, bool isAsynchronous) noexcept
        : _word(lane | (isAsynchronous ? asynchronousBit : 0) |
                (runBy == RunBy::QueueThread ? queueThreadBit : 0))
    {}
    uint32_t lane() const noexcept { return static_cast<uint32_t>(_word & laneBit); }
    /// Whether this is an AsynchronousItem or a SynchronousItem.
    bool isAsynchronous() const noexcept { return (_word & asynchronousBit) != 0; }
    bool isForQueueThread() const noexcept { return (_word & queueThreadBit) != 0; }
    /// On the stack: the item pushed before this one. In a lane: the item that runs after it.
    Item* next() const noexcept { return reinterpret_cast<Item*>(_word & ~flagBits); } // NOLINT: bits apart
    void setNext(Item* item) noexcept { _word = (_word & flagBits) | reinterpret_cast<uintptr_t>(item); }

private:
    static constexpr uintptr_t laneBit = 1;
    static constexpr uintptr_t asynchronousBit = 2;
    static constexpr uintptr_t queueThreadBit = 4;
    static constexpr uintptr_t flagBits = laneBit | asynchronousBit | queueThreadBit;
    uintptr_t _word;
};

/// Allocated by the fast allocator; freed after it has run.
struct CXDispatchDrain::AsynchronousItem : Item {
    AsynchronousItem(uint32_t itemLane, RunBy runBy, const Work& work) noexcept
        : Item(itemLane, runBy, true), block(work)
    {}
    Work block;
};

/// Stored on the stack of the thread that waits for it.
struct CXDispatchDrain::SynchronousItem : Item {
    SynchronousItem(uint32_t itemLane, RunBy runBy, BorrowedWork work) noexcept
        : Item(itemLane, runBy, false), block(work)
    {}
    const BorrowedWork block;
    dxr::Reply reply;
};

void CXDispatchDrain::reserveItems()
{
    // Once for all queues, so that the first push from an IO thread does not have to ask the system for
    // memory. If reserving fails, async() reports the failure later.
    constexpr size_t itemsAtHand = 1000;
    [[maybe_unused]] static const bool hasItems = TFA_reserve(sizeof(AsynchronousItem), itemsAtHand);
}

// --- Bringing work ---

void CXDispatchDrain::sync(uint32_t lane, RunBy runBy, BorrowedWork block)
{
    SynchronousItem item(lane, runBy, block);
    if (_push(item))
        _wakeThread();
    item.reply.wait();
}

bool CXDispatchDrain::async(uint32_t lane, RunBy runBy, const Work& block)
{
    void* const memory = TFA_malloc(sizeof(AsynchronousItem));
    if (!memory)
        return false;
    if (_push(*new (memory) AsynchronousItem(lane, runBy, block)))
        _wakeThread();
    return true;
}

bool CXDispatchDrain::bypassIfIdle(Borrow borrow, BorrowedWork block)
{
    Item* idle = nullptr;
    if (!_head.compare_exchange_strong(idle, mark()))
        return false;
    // Equivalent to pushing an item and taking it at once, without the two exchanges.
    _becomeOwner();
    run(block);
    borrow == Borrow::Once ? _stopEarly() : _runUntilIdle();
    return true;
}

void CXDispatchDrain::bypass(Borrow borrow, BorrowedWork block)
{
    if (bypassIfIdle(borrow, block))
        return;
    SynchronousItem item(urgentLane, RunBy::Anyone, block);
    if (_push(item)) {
        // The queue became idle meanwhile. The item now runs through the lanes, with the items pushed after
        // it. Its reply is sent before this thread waits for it.
        if (borrow == Borrow::UntilIdle) {
            _run();
        } else {
            _becomeOwner();
            _takeArrivals();
            _runPass();
            _stopEarly();
        }
    }
    item.reply.wait();
}

// --- The right to drain ---

/// Pushes `item` onto the stack. Returns true if the queue was idle: this thread then holds the right to
/// drain.
bool CXDispatchDrain::_push(Item& item) noexcept
{
    const bool isUrgent = item.lane() == urgentLane;
    dxr::BackOff backOff;
    Item* head = _head.load(std::memory_order_relaxed);
    const auto linkTo = [&item](Item* before) { item.setNext(before == mark() ? nullptr : before); };
    for (linkTo(head); !_head.compare_exchange_strong(head, &item); linkTo(head)) {
        backOff.wait();
        head = _head.load(std::memory_order_relaxed);
    }
    // The item may be destroyed from here on.
    if (head != nullptr && isUrgent)
        _urgent.store(true, std::memory_order_release);
    return head == nullptr;
}

/// Passes the right to drain to the queue's thread, or drains here if that thread has ended.
void CXDispatchDrain::_wakeThread()
{
    if (!_wakeUp.signal())
        _run();
}

/// On the queue's thread: acquires the right to drain, or waits until the thread that holds it passes it on.
void CXDispatchDrain::_waitForRight() noexcept
{
    Item* idle = nullptr;
    if (_head.compare_exchange_strong(idle, mark()))
        return;
    _threadWaits.store(true);
    idle = nullptr;
    if (!_head.compare_exchange_strong(idle, mark()))
        _wakeUp.waitForSignal();
    _threadWaits.store(false);
}

void CXDispatchDrain::takeAndRun(BorrowedWork step)
{
    _waitForRight();
    _becomeOwner();
    run(step);
    _runUntilIdle();
}

void CXDispatchDrain::threadEnds()
{
    _thread.store(0);
    if (_wakeUp.close())
        _run(); // the right was passed after the last drain, before the set was closed
}

void CXDispatchDrain::_becomeOwner()
{
    if (owner() != 0)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    _owner.store(pthread_self(), std::memory_order_relaxed);
}

/// Called with the right: runs all pending work and the work that arrives meanwhile.
void CXDispatchDrain::_run()
{
    _becomeOwner();
    _runUntilIdle();
}

/// Called by the owner: does the same.
void CXDispatchDrain::_runUntilIdle()
{
    for (;;) {
        if (_areLanesEmpty())
            _letItemsGather();
        if (_areLanesEmpty() || _urgent.load(std::memory_order_relaxed))
            _takeArrivals();
        if (!_areLanesEmpty()) {
            if (!_runPass())
                return _handOver();
        } else if (_giveUpIfIdle()) {
            return;
        }
    }
}

/// Called by the owner: runs all items in lane 0 and one item in lane 1. Returns false, without running it,
/// if the next item is for the queue's thread and this is another thread.
bool CXDispatchDrain::_runPass() noexcept
{
    while (const Item* const item = _lanes[urgentLane].first) {
        if (_isForAnotherThread(*item))
            return false;
        _invoke(_next(urgentLane));
    }
    if (const Item* const item = _lanes[clientLane].first) {
        if (_isForAnotherThread(*item))
            return false;
        _invoke(_next(clientLane));
    }
    return true;
}

bool CXDispatchDrain::_isForAnotherThread(const Item& item) const noexcept
{
    return item.isForQueueThread() && !_isQueueThread() && thread() != 0;
}

/// Called by the owner: releases the right, or passes it to the queue's thread if items are left.
void CXDispatchDrain::_stopEarly()
{
    if (!_areLanesEmpty() || !_giveUpIfIdle())
        _handOver();
}

/// Called by the owner, with empty lanes: releases the right or passes it to the queue's thread. Returns
/// false, still holding the right, if items have arrived.
bool CXDispatchDrain::_giveUpIfIdle()
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
    if (!_head.compare_exchange_strong(head, nullptr)) {
        _owner.store(self, std::memory_order_relaxed);
        return false;
    }
    if (_threadWaits.load()) {
        Item* idle = nullptr;
        if (_head.compare_exchange_strong(idle, mark()))
            _wakeThread();
    }
    return true;
}

/// Called by the owner: passes the right to the queue's thread, with the items in the lanes and on the stack.
void CXDispatchDrain::_handOver()
{
    _needsThread = false;
    _spentItems.giveBack();
    _owner.store(0, std::memory_order_relaxed);
    _wakeThread();
}

// --- Items ---

/// Waits a fraction of a microsecond if items arrive at short intervals but too few to keep this thread busy.
/// Taking each item as it arrives would contend with the pushing threads for the head and slow down both.
void CXDispatchDrain::_letItemsGather() const noexcept
{
    constexpr uint32_t pauses = 8;
    if (_arrivedTogether < 2 || _arrivedTogether >= plentyOfItems)
        return;
    for (uint32_t i = 0; i < pauses; ++i)
        dxr::BackOff::pause();
}

/// Moves all items on the stack to the lanes, in order of arrival.
void CXDispatchDrain::_takeArrivals() noexcept
{
    // Before the exchange, so that a flag set after it stays set.
    _urgent.store(false, std::memory_order_relaxed);
    Item* newest = _head.exchange(mark());
    _arrivedTogether = 0;
    if (newest == mark())
        return;
    Lane arrivals[laneCount];
    while (newest !=
           // A single pass, because most of the time is spent on fetching the items from the other
           // processor's cache.
           nullptr) {
        Item* const item = newest;
        newest = item->next();
        ++_arrivedTogether;
        Lane& lane = arrivals[item->lane()];
        if (lane.last == nullptr)
            lane.last = item;
        item->setNext(lane.first);
        lane.first = item;
    }
    for (uint32_t lane : {urgentLane, clientLane})
        _append(arrivals[lane], lane);
}

/// Appends a chain of items to a lane.
void CXDispatchDrain::_append(const Lane& chain, uint32_t index) noexcept
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

/// Removes and returns the first item of a lane, which must not be empty.
CXDispatchDrain::Item* CXDispatchDrain::_next(uint32_t index) noexcept
{
    Lane& lane = _lanes[index];
    Item* const item = lane.first;
    lane.first = item->next();
    if (lane.first == nullptr)
        lane.last = nullptr;
    return item;
}

/// Runs an item. The item is invalid afterwards.
void CXDispatchDrain::_invoke(Item* item) noexcept
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
