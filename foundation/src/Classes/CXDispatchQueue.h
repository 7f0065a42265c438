#pragma once

#include "CXBlockRef.h"
#include "CXErrorAdditions.h"
#include "CXQueueChecks.h"
#include "CXRef.h"
#include "PortSet.h"
#include "TFASpentBlocks.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <pthread.h>
#include <string>

class CXDispatchReceiver;
class CXDispatchTimer;

// The flags of a dispatch: the lane in bits 0 to 7, and what is added to it.
inline constexpr uint32_t CXDispatchHousekeepingLane = 0; ///< overtakes client work; the queue's own steps
inline constexpr uint32_t CXDispatchClientLane = 1;       ///< what the forms without flags use
inline constexpr uint32_t CXDispatchAfterCancel = 0x100;  ///< allowed once the queue is cancelled

/// A serial queue served by a thread of its own, which also fires timers and delivers messages to receivers:
/// all of it one at a time, so that code reached from any of them needs no lock.
/// Lane 0 overtakes lane 1: before each item of lane 1 runs, everything of lane 0 that has arrived has run.
/// Within a lane, order of arrival.
/// Threads:   any, unless a method says otherwise. A callback that throws ends the process.
/// Real time: pushing asynchronous work made beforehand (making a CXBlock of a lambda allocates), as long as no
///            more than a thousand pieces wait in the whole process (TFA_reserve for 16 bytes prepares for
///            more); and a bypass, which on an idle queue neither waits nor wakes anybody. The synchronous
///            forms wait.
/// Fails:     wrong use asserts, with "CXDispatchQueue" and a line: a lane other than 0 and 1, work for a
///            cancelled queue, waiting for the queue from itself.
/// Its thread keeps a queue alive until it is cancelled and its work is done.
class CX_QUEUE_CAPABILITY DXR_EXPORT CXDispatchQueue final : public CXObject {
public:
    using Work = CXBlock<void()>;
    using BorrowedWork = CXBlockRef<void()>;

    /// A queue without a name of its own.
    static CXRef<CXDispatchQueue> init() { return initWithName(std::nullopt); }
    /// Its thread takes the name, cut to the kernel's 15 bytes. Null when the system has no thread to give.
    static CXRef<CXDispatchQueue> initWithName(std::optional<std::string> name);

    const std::optional<std::string>& name() const noexcept { return _name; }
    /// Which thread is running queue work now; 0 for none.
    pthread_t owner() const noexcept CX_REALTIME { return _owner.load(std::memory_order_relaxed); }
    /// The queue's own thread; 0 once it has ended.
    pthread_t thread() const noexcept { return _thread.load(); }
    /// Whether the calling thread is running this queue's work, its own or borrowed.
    bool isDispatchedOnCurrentThread() const noexcept CX_REALTIME { return owner() == pthread_self(); }

    /// Runs `block` on the queue and returns when it has run. Not from the queue itself: that asserts.
    void dispatchSync(BorrowedWork block) { dispatchSync(CXDispatchClientLane, block); }
    void dispatchSync(uint32_t flags, BorrowedWork block);
    /// Runs `block` on the queue some time after the call.
    void dispatchAsync(const Work& block) CX_REALTIME { dispatchAsync(CXDispatchClientLane, block); }
    void dispatchAsync(uint32_t flags, const Work& block) CX_REALTIME;
    /// From the queue itself, runs `block` at once and answers true; from elsewhere as dispatchSync, and
    /// false. Null does nothing.
    bool dispatchSyncImmed(BorrowedWork block) { return dispatchSyncImmed(CXDispatchClientLane, block); }
    bool dispatchSyncImmed(uint32_t flags, BorrowedWork block);
    /// The same with dispatchAsync.
    bool dispatchAsyncImmed(const Work& block) { return dispatchAsyncImmed(CXDispatchClientLane, block); }
    bool dispatchAsyncImmed(uint32_t flags, const Work& block);
    /// Runs `block` as work of lane 0: at once on the calling thread when the queue is idle, and then
    /// everything else that arrives until it is idle again; waits as dispatchSync when the queue is busy.
    void dispatchSyncBypass(BorrowedWork block) CX_REALTIME;
    /// The same, but leaves to the queue's thread what arrives meanwhile, all but the lane 0 work that came
    /// before `block` and at most one item of lane 1.
    void dispatchSyncBypassOnce(BorrowedWork block) CX_REALTIME;
    /// The same where it need not wait. False, and nothing has happened, when the queue is busy.
    bool dispatchSyncBypassOnceIfIdle(BorrowedWork block) CX_REALTIME;

    /// Has messages on the receiver's port delivered here. On a cancelled queue, cancels the receiver
    /// instead. Returns when it is done, as do the three below. CXDispatchReceiver and CXDispatchTimer call
    /// these.
    void addReceiver(const CXRef<CXDispatchReceiver>& receiver);
    void removeReceiver(const CXRef<CXDispatchReceiver>& receiver);
    /// Has the timer fire here. On a cancelled queue, cancels the timer instead. One that is here asserts.
    void addTimer(const CXRef<CXDispatchTimer>& timer);
    void removeTimer(const CXRef<CXDispatchTimer>& timer);
    /// Schedules the timer anew by its own deadline and interval, soon.
    void updateTimer(const CXRef<CXDispatchTimer>& timer);

    /// Puts the queue's thread under real-time scheduling; a refusal is logged. Returns when it is done.
    void setRealTime();
    /// No new work from now on, except with CXDispatchAfterCancel; timers are cancelled. The thread ends
    /// after the work that is there. Work allowed after that runs on whichever thread brings it.
    void cancel();

    /// For CX_ASSERT_ON_QUEUE: tells the analysis what has just been checked.
    void assumeCurrent() const noexcept CX_ASSERTS_QUEUE {}

private:
    struct Item;
    struct AsynchronousItem;
    struct SynchronousItem;
    class TimerEntry;
    /// Items one behind the other.
    struct Lane {
        Item* first = nullptr;
        Item* last = nullptr;
    };
    enum class Drain { UntilIdle, Once };

    explicit CXDispatchQueue(std::optional<std::string> name);
    ~CXDispatchQueue() override;

    void _checkLane(uint32_t flags) const;
    void _checkNotCancelled(uint32_t flags) const;
    void _checkNotOwner() const;

    bool _push(Item& item) noexcept CX_REALTIME;
    void _wakeThread() CX_REALTIME;
    bool _bypassIfIdle(Drain drain, BorrowedWork block) CX_REALTIME;
    void _bypass(Drain drain, BorrowedWork block) CX_REALTIME;
    void _waitForRight() noexcept;
    void _becomeOwner() CX_REALTIME;
    void _drain() CX_REALTIME;
    void _drainOnce() CX_REALTIME;
    void _runUntilIdle() CX_REALTIME;
    void _runPass() noexcept CX_REALTIME;
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
    bool _isCancelled() const noexcept { return _cancelled.load() != 0; }

    void _workloop();
    void _deliver(const platform::PortSet::Event& event) noexcept;
    void _fireTimers() noexcept;
    CXRef<TimerEntry> _nextDue(uint64_t now) const noexcept;
    void _schedule(TimerEntry& entry) noexcept;
    void _unschedule(TimerEntry& entry) noexcept;
    void _publishFirstDeadline() noexcept;
    void _cancelTimers();

    /// The head of the stack while it is being drained; never an item.
    static Item* mark() noexcept { return reinterpret_cast<Item*>(UINTPTR_MAX); }

    // --- Pushing and draining ---
    //
    // Exactly one thread at a time has the right to drain, and only it runs work. The head of the stack of
    // pending items says where the right is:
    //   null         nobody has it; the queue is idle
    //   the mark     somebody has it, and nothing has arrived since it last took what was there
    //   an item      somebody has it, or will: items have arrived. The chain ends at null or at the mark.
    // Pushing is one exchange of the head. A push onto null takes the right along and must pass it on: to the
    // queue's thread by the port set's signal, or, for a bypass, to itself. A push onto anything else leaves
    // the item to whoever has the right. An exchange from null to the mark takes the right without an item;
    // the exchange from the mark to null gives it up and fails if something has arrived. So a signal always
    // carries the right, and there is never more than one under way. A drain that stops early sends it to the
    // queue's thread and leaves the head as it is. A set that is closed (the thread has ended) refuses the
    // signal, and the right stays with the sender, which drains.
    //
    // The queue's own thread needs the right for timers and receivers too. When it finds somebody else has
    // it, it raises `_threadWaits` and tries once more; whoever gives the right up looks at that flag
    // afterwards, takes the right again if it can, and sends it over. All these are sequentially consistent:
    // one of the two sees the other.
    //
    // The exchange that pushes releases the item, the one that takes the stack acquires it. What the right
    // guards (_owner, the lanes, the timers) passes with it through the same exchanges and the signal.
    alignas(64) std::atomic<Item*> _queue{nullptr};
    // Raised after work of lane 0 was pushed onto a busy queue, so that a drain with a long lane 1 need not
    // take the stack after every item to look for it, and fight the pushing threads for its head.
    alignas(64) std::atomic<bool> _urgent{false};
    std::atomic<bool> _threadWaits{false};
    std::atomic<uint32_t> _cancelled{0}; // bit 0: requested, bit 1: finished

    // --- Guarded by the right to drain ---
    alignas(64) std::atomic<pthread_t> _owner{0}; // read by all, each for a look whether it is itself
    Lane _lanes[2];                               // taken from the stack, in order of arrival
    uint32_t _arrivedTogether = 0;                // how many items the stack held when it was last taken
    TFASpentBlocks _spentItems;
    std::map<const CXDispatchTimer*, CXRef<TimerEntry>> _timerMap;
    TimerEntry* _firstTimer = nullptr; // by ascending deadline, equal ones in the order they were scheduled
    TimerEntry* _lastTimer = nullptr;
    uint64_t _timerPass = 0;
    // Something only the queue's thread can do: a borrower sends it the right instead of giving it up.
    bool _needsThread = false;
    bool _wantsRealTime = false;
    // The first timer's, for the queue's thread to sleep by; it reads this without the right, and whoever
    // makes it earlier sets _needsThread.
    std::atomic<uint64_t> _nextDeadline{platform::Futex::noDeadline};

    const std::optional<std::string> _name;
    const CXRef<platform::PortSet> _portset; // the receivers' ports, and the signal
    std::atomic<pthread_t> _thread{0};
};

/// Asserts that the caller runs as work of `queue`, and tells the compiler's analysis so.
#define CX_ASSERT_ON_QUEUE(queue)                                                                            \
    ((queue)->isDispatchedOnCurrentThread()                                                                  \
         ? (queue)->assumeCurrent()                                                                          \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),                                 \
                              "[" #queue " isDispatchedOnCurrentThread]", __FILE__, __LINE__))
/// Asserts that the caller does not: it is about to wait for the queue.
#define CX_ASSERT_NOT_ON_QUEUE(queue)                                                                        \
    (!(queue)->isDispatchedOnCurrentThread()                                                                 \
         ? static_cast<void>(0)                                                                              \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),                                 \
                              "![" #queue " isDispatchedOnCurrentThread]", __FILE__, __LINE__))
