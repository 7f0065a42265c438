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

/// noexcept: work that throws ends the process here, where its stack can still be seen.
void run(CXDispatchDrain::BorrowedWork block) noexcept
{
    if (block)
        block();
}

} // namespace

/// A piece of work on its way: a link, with what there is to know about the item in the bits that an address
/// leaves free. So four asynchronous items fit into the cache line that has to go from thread to thread.
struct alignas(8) CXDispatchDrain::Item {
    Item(uint32_t lane, RunBy runBy, bool isAsynchronous) noexcept
        : _word(lane | (isAsynchronous ? asynchronousBit : 0) |
                (runBy == RunBy::QueueThread ? queueThreadBit : 0))
    {}
    uint32_t lane() const noexcept { return static_cast<uint32_t>(_word & laneBit); }
    /// Which of the two below it is.
    bool isAsynchronous() const noexcept { return (_word & asynchronousBit) != 0; }
    bool isForQueueThread() const noexcept { return (_word & queueThreadBit) != 0; }
    /// On the stack: pushed before; in a lane: to run after.
    Item* next() const noexcept { return reinterpret_cast<Item*>(_word & ~flagBits); } // NOLINT: bits apart
    void setNext(Item* item) noexcept { _word = (_word & flagBits) | reinterpret_cast<uintptr_t>(item); }

private:
    static constexpr uintptr_t laneBit = 1;
    static constexpr uintptr_t asynchronousBit = 2;
    static constexpr uintptr_t queueThreadBit = 4;
    static constexpr uintptr_t flagBits = laneBit | asynchronousBit | queueThreadBit;
    uintptr_t _word;
};

/// From the fast allocator, freed after it has run.
struct CXDispatchDrain::AsynchronousItem : Item {
    AsynchronousItem(uint32_t itemLane, RunBy runBy, const Work& work) noexcept
        : Item(itemLane, runBy, true), block(work)
    {}
    Work block;
};

/// On the stack of a thread that waits for it.
struct CXDispatchDrain::SynchronousItem : Item {
    SynchronousItem(uint32_t itemLane, RunBy runBy, BorrowedWork work) noexcept
        : Item(itemLane, runBy, false), block(work)
    {}
    const BorrowedWork block;
    dxr::Reply reply;
};

void CXDispatchDrain::reserveItems()
{
    // Once for all queues: the first push from an IO thread must not be what asks the system for the first
    // chunk. Where that fails, a push will say so.
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
    // As if an item had been pushed and taken at once, less two exchanges.
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
        // Idle after all. The item has to go through the lanes now, with what came after it; its reply is
        // sent to a thread that need not wait.
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

/// Leaves `item` on the stack. Whether the right to drain came with it: the queue was idle.
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
    // From here on the item may be gone.
    if (head != nullptr && isUrgent)
        _urgent.store(true, std::memory_order_release);
    return head == nullptr;
}

/// Sends the right to drain to the queue's thread, or uses it here when that thread has ended.
void CXDispatchDrain::_wakeThread()
{
    if (!_wakeUp.signal())
        _run();
}

/// On the queue's thread: takes the right to drain, or waits until the thread that has it sends it.
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
        _run(); // the right came after the last drain, before the set was closed
}

void CXDispatchDrain::_becomeOwner()
{
    if (owner() != 0)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    _owner.store(pthread_self(), std::memory_order_relaxed);
}

/// With the right: runs everything, in turn, and what arrives meanwhile.
void CXDispatchDrain::_run()
{
    _becomeOwner();
    _runUntilIdle();
}

/// As the owner: the same.
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

/// As the owner: runs what lane 0 has and one item of lane 1. False when it met work for the queue's thread,
/// which is another one.
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

/// As the owner: gives the right up, or over to the queue's thread if anything is left.
void CXDispatchDrain::_stopEarly()
{
    if (!_areLanesEmpty() || !_giveUpIfIdle())
        _handOver();
}

/// As the owner, with empty lanes: whether nothing had arrived, and the right is gone.
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

/// As the owner: sends the right to the queue's thread, with what is in the lanes and on the stack.
void CXDispatchDrain::_handOver()
{
    _needsThread = false;
    _spentItems.giveBack();
    _owner.store(0, std::memory_order_relaxed);
    _wakeThread();
}

// --- Items ---

/// Waits for a moment, a small part of a microsecond, when items come one close behind the other but fewer
/// than would keep this thread busy. Taking each as it comes would fight the pushing threads for the head,
/// and both would spend their time on that.
void CXDispatchDrain::_letItemsGather() const noexcept
{
    constexpr uint32_t pauses = 8;
    if (_arrivedTogether < 2 || _arrivedTogether >= plentyOfItems)
        return;
    for (uint32_t i = 0; i < pauses; ++i)
        dxr::BackOff::pause();
}

/// Moves everything on the stack to the lanes, in order of arrival.
void CXDispatchDrain::_takeArrivals() noexcept
{
    // Before the exchange: what is raised after it stays raised.
    _urgent.store(false, std::memory_order_relaxed);
    Item* newest = _head.exchange(mark());
    _arrivedTogether = 0;
    if (newest == mark())
        return;
    Lane arrivals[laneCount];
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
    for (uint32_t lane : {urgentLane, clientLane})
        _append(arrivals[lane], lane);
}

/// Puts a chain of items behind what the lane has.
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

/// Takes the first item of a lane that is not empty.
CXDispatchDrain::Item* CXDispatchDrain::_next(uint32_t index) noexcept
{
    Lane& lane = _lanes[index];
    Item* const item = lane.first;
    lane.first = item->next();
    if (lane.first == nullptr)
        lane.last = nullptr;
    return item;
}

/// Runs an item, which is gone afterwards.
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
