#pragma once

#include "CXBlockRef.h"
#include "PortSet.h"
#include "TFASpentBlocks.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

/// The pending work of a dispatch queue, and the right to run it. One thread at a time holds the right: the
/// queue's thread, or a thread that borrows the queue. Lane 0 overtakes lane 1: all arrived work of lane 0
/// runs before each item of lane 1. Within a lane, items run in order of arrival.
/// Threads:   any, unless a function states otherwise. Work that throws ends the process.
/// Real time: async(), if the block exists already and memory for items is reserved (reserveItems());
///            bypassIfIdle(). sync() and bypass() wait.
class CXDispatchDrain {
public:
    using Work = CXBlock<void()>;
    using BorrowedWork = CXBlockRef<void()>;
    static constexpr uint32_t laneCount = 2;

    /// Which threads may run an item. Once the queue's thread has ended, other threads run its items too.
    enum class RunBy { Anyone, QueueThread };
    /// How much pending work a borrowing thread runs after its own block.
    enum class Borrow {
        UntilIdle, ///< until the queue is idle or only the queue's thread may run the next item
        Once       ///< lane 0 and one item of lane 1; leaves the rest to the queue's thread
    };

    /// The queue's thread sleeps on `wakeUp`, which must outlive this object.
    explicit CXDispatchDrain(dxr::PortSet& wakeUp) noexcept : _wakeUp(wakeUp) {}
    CXDispatchDrain(const CXDispatchDrain&) = delete;
    CXDispatchDrain& operator=(const CXDispatchDrain&) = delete;

    /// Reserves memory for a thousand pending items in the whole process. Not for an IO thread.
    static void reserveItems();

    /// The thread that is running work; 0 if none is.
    pthread_t owner() const noexcept CX_REALTIME { return _owner.load(std::memory_order_relaxed); }
    /// Returns true if no work is pending or running.
    bool isIdle() const noexcept { return _head.load() == nullptr; }
    /// The queue's thread; 0 before it starts and after it has ended.
    pthread_t thread() const noexcept { return _thread.load(); }

    /// Runs `block` on the queue and returns when it has finished.
    void sync(uint32_t lane, RunBy runBy, BorrowedWork block);
    /// Queues `block`. Returns false if memory for the item cannot be allocated.
    bool async(uint32_t lane, RunBy runBy, const Work& block) CX_REALTIME;
    /// If the queue is idle, runs `block` on the calling thread as work of lane 0, then further work as
    /// `borrow` says. If the queue is busy, does nothing and returns false.
    bool bypassIfIdle(Borrow borrow, BorrowedWork block) CX_REALTIME;
    /// Like bypassIfIdle(), but if the queue is busy, waits until `block` has run on it.
    void bypass(Borrow borrow, BorrowedWork block) CX_REALTIME;

    /// To be called by the owner: when it has finished, the right passes to the queue's thread even if no
    /// work is pending.
    void needThread() noexcept { _needsThread = true; }

    // --- On the queue's thread ---
    void threadBegins() noexcept { _thread.store(pthread_self()); }
    /// Runs the pending work. Called after a signal of the port set, which passed the right to this thread.
    void runSignalled() { _run(); }
    /// Waits for the right, then runs `step` and the pending work.
    void takeAndRun(BorrowedWork step);
    /// Must be the last call. Later work runs on the thread that queues it.
    void threadEnds();

private:
    struct Item;
    struct AsynchronousItem;
    struct SynchronousItem;
    /// A linked list of items.
    struct Lane {
        Item* first = nullptr;
        Item* last = nullptr;
    };

    bool _push(Item& item) noexcept CX_REALTIME;
    void _wakeThread() CX_REALTIME;
    void _waitForRight() noexcept;
    void _becomeOwner() CX_REALTIME;
    void _run() CX_REALTIME;
    void _runUntilIdle() CX_REALTIME;
    bool _runPass() noexcept CX_REALTIME;
    void _stopEarly() CX_REALTIME;
    bool _giveUpIfIdle() CX_REALTIME;
    void _handOver() CX_REALTIME;
    void _letItemsGather() const noexcept CX_REALTIME;
    void _takeArrivals() noexcept CX_REALTIME;
    void _append(const Lane& chain, uint32_t lane) noexcept CX_REALTIME;
    Item* _next(uint32_t lane) noexcept CX_REALTIME;
    void _invoke(Item* item) noexcept CX_REALTIME;
    bool _areLanesEmpty() const noexcept { return _lanes[0].first == nullptr && _lanes[1].first == nullptr; }
    bool _isQueueThread() const noexcept { return pthread_self() == _thread.load(std::memory_order_relaxed); }
    bool _isForAnotherThread(const Item& item) const noexcept CX_REALTIME;

    /// The value of the head while a thread drains the queue and no item has arrived; not a valid item.
    static Item* mark() noexcept { return reinterpret_cast<Item*>(UINTPTR_MAX); }

    // --- Pushing and draining ---
    //
    // At most one thread at a time holds the right to drain, and only that thread runs work. The head of the
    // stack of pending items shows the state:
    // - null: no thread holds the right; the queue is idle.
    // - the mark: a thread holds the right, and no item has arrived since it last emptied the stack.
    // - an item: a thread holds the right or is about to get it; items have arrived. The list ends at null or
    //   at the mark.
    // A push is one exchange of the head. A push onto null acquires the right and must pass it on: to the
    // queue's thread by the port set's signal or, in a bypass, to itself. A push onto any other value leaves
    // the item to the thread that holds the right. An exchange from null to the mark acquires the right
    // without an item; the exchange from the mark to null releases it and fails if an item has arrived. So
    // every signal passes the right, and at most one signal is pending. A drain that stops early signals the
    // queue's thread and leaves the head unchanged; so does a borrowing thread that finds work for the
    // queue's thread only. If the set is closed because the thread has ended, it refuses the signal; the
    // sender keeps the right and drains.
    //
    // The queue's thread also needs the right to fire timers and deliver messages. If another thread holds
    // it, the queue's thread sets `_threadWaits` and tries once more; a thread that releases the right then
    // reads that flag, acquires the right again if it can, and signals the queue's thread. These operations
    // are sequentially consistent: at least one of the two threads sees the other's.
    //
    // The exchange that pushes an item releases it; the one that empties the stack acquires it. The data that
    // the right guards (_owner, the lanes, the queue's timers and receivers) is passed by the same exchanges
    // and the signal.
    alignas(64) std::atomic<Item*> _head{nullptr};
    // Set after work of lane 0 was pushed onto a busy queue. Without it, a drain with many items in lane 1
    // would have to empty the stack after each item to look for lane 0, contending with the pushing threads.
    alignas(64) std::atomic<bool> _urgent{false};
    std::atomic<bool> _threadWaits{false};

    // --- Guarded by the right to drain ---
    alignas(64) std::atomic<pthread_t> _owner{0}; // any thread compares it with itself
    Lane _lanes[laneCount];                       // items taken from the stack, in order of arrival
    uint32_t _arrivedTogether = 0;                // items on the stack when it was last emptied
    TFASpentBlocks _spentItems;
    bool _needsThread = false; // a borrowing thread passes the right to the queue's thread when done

    dxr::PortSet& _wakeUp;
    std::atomic<pthread_t> _thread{0};
};
