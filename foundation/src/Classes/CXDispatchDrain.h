#pragma once

#include "CXBlockRef.h"
#include "PortSet.h"
#include "TFASpentBlocks.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

/// The pending work of a dispatch queue, and the right to run it, which one thread at a time has: the queue's
/// own, or one that borrows the queue. Lane 0 overtakes lane 1: before each item of lane 1 runs, everything
/// of lane 0 that has arrived has run. Within a lane, order of arrival.
/// Threads:   any, unless a function says otherwise. Work that throws ends the process.
/// Real time: async(), with a block made beforehand and the item's memory reserved (reserveItems);
///            bypassIfIdle(). sync() and bypass() wait.
class CXDispatchDrain {
public:
    using Work = CXBlock<void()>;
    using BorrowedWork = CXBlockRef<void()>;
    static constexpr uint32_t laneCount = 2;

    /// Who may run an item. Work that is for the queue's thread runs elsewhere once that thread has ended.
    enum class RunBy { Anyone, QueueThread };
    /// How far a thread that borrows the queue goes on after its own work.
    enum class Borrow {
        UntilIdle, ///< until nothing is left, but for the queue's thread's own work
        Once       ///< through lane 0 and one item of lane 1; the queue's thread has the rest
    };

    /// `wakeUp` is what the queue's thread sleeps on. It outlives this object.
    explicit CXDispatchDrain(dxr::PortSet& wakeUp) noexcept : _wakeUp(wakeUp) {}
    CXDispatchDrain(const CXDispatchDrain&) = delete;
    CXDispatchDrain& operator=(const CXDispatchDrain&) = delete;

    /// Prepares the fast allocator for a thousand pending items in the whole process. Not for an IO thread.
    static void reserveItems();

    /// Which thread runs work now; 0 for none.
    pthread_t owner() const noexcept CX_REALTIME { return _owner.load(std::memory_order_relaxed); }
    /// Whether no work is pending or running.
    bool isIdle() const noexcept { return _head.load() == nullptr; }
    /// The queue's thread; 0 before it has begun and after it has ended.
    pthread_t thread() const noexcept { return _thread.load(); }

    /// Returns when `block` has run.
    void sync(uint32_t lane, RunBy runBy, BorrowedWork block);
    /// False where there is no memory for the item.
    bool async(uint32_t lane, RunBy runBy, const Work& block) CX_REALTIME;
    /// Runs `block` here, as work of lane 0, and then what `borrow` says. False, and nothing has happened,
    /// when the queue is busy.
    bool bypassIfIdle(Borrow borrow, BorrowedWork block) CX_REALTIME;
    /// The same; waits as sync() when the queue is busy.
    void bypass(Borrow borrow, BorrowedWork block) CX_REALTIME;

    /// As the owner: the queue's thread gets the right when this thread has done, pending work or not.
    void needThread() noexcept { _needsThread = true; }

    // --- On the queue's thread ---
    void threadBegins() noexcept { _thread.store(pthread_self()); }
    /// After a signal of the port set, which brought the right: runs what is pending.
    void runSignalled() { _run(); }
    /// Waits for the right, runs `step` and then what is pending.
    void takeAndRun(BorrowedWork step);
    /// The last call. From now on work runs on the thread that brings it.
    void threadEnds();

private:
    struct Item;
    struct AsynchronousItem;
    struct SynchronousItem;
    /// Items one behind the other.
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

    /// The head of the stack while it is being drained; never an item.
    static Item* mark() noexcept { return reinterpret_cast<Item*>(UINTPTR_MAX); }

    // --- Pushing and draining ---
    //
    // Exactly one thread at a time has the right to drain, and only it runs work. The head of the stack of
    // pending items says where the right is: null no thread has it; the queue is idle the mark a thread has
    // it, and nothing has arrived since it last took the stack an item a thread has it, or will: items have
    // arrived. The chain ends at null or at the mark. Pushing is one exchange of the head. A push onto null
    // takes the right along and must pass it on: to the queue's thread by the port set's signal, or, for a
    // bypass, to itself. A push onto anything else leaves the item to the thread that has the right. An
    // exchange from null to the mark takes the right without an item; the exchange from the mark to null
    // gives it up and fails if something has arrived. So a signal always carries the right, and there is
    // never more than one under way. A drain that stops early sends it to the queue's thread and leaves the
    // head as it is; so does a borrowing thread that meets work for the queue's thread only. A set that is
    // closed (the thread has ended) refuses the signal, and the right stays with the sender, which drains.
    //
    // The queue's own thread needs the right for timers and receivers too. When it finds that another thread
    // has it, it raises `_threadWaits` and tries once more; a thread that gives the right up looks at that
    // flag afterwards, takes the right again if it can, and sends it over. All these are sequentially
    // consistent: one of the two sees the other.
    //
    // The exchange that pushes releases the item, the one that takes the stack acquires it. What the right
    // guards (_owner, the lanes, the queue's timers and receivers) passes with it through the same exchanges
    // and the signal.
    alignas(64) std::atomic<Item*> _head{nullptr};
    // Raised after work of lane 0 was pushed onto a busy queue, so that a drain with a long lane 1 need not
    // take the stack after every item to look for it, and fight the pushing threads for its head.
    alignas(64) std::atomic<bool> _urgent{false};
    std::atomic<bool> _threadWaits{false};

    // --- Guarded by the right to drain ---
    alignas(64) std::atomic<pthread_t> _owner{0}; // read by all, each to see whether it is itself
    Lane _lanes[laneCount];                       // taken from the stack, in order of arrival
    uint32_t _arrivedTogether = 0;                // how many items the stack held when it was last taken
    TFASpentBlocks _spentItems;
    bool _needsThread = false; // a borrowing thread sends the right to the queue's instead of giving it up

    dxr::PortSet& _wakeUp;
    std::atomic<pthread_t> _thread{0};
};
