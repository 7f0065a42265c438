#pragma once

#include "CXBlockRef.h"
#include "CXErrorAdditions.h"
#include "CXQueueChecks.h"
#include "CXRef.h"
#include "CXThreadSetRealtime.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <pthread.h>
#include <string>

class CXDispatchDrain;
class CXDispatchMember;
class CXDispatchTimerList;
namespace dxr {
class PortSet;
}

// The flags of a dispatch: the lane in bits 0 to 7, combined with options.
inline constexpr uint32_t CXDispatchHousekeepingLane = 0; ///< overtakes client work; used by the queue itself
inline constexpr uint32_t CXDispatchClientLane = 1;       ///< used by the functions without flags
inline constexpr uint32_t CXDispatchAfterCancel = 0x100;  ///< allowed after the queue was cancelled

/// A serial queue with its own thread, which also fires timers and delivers messages to receivers. Blocks and
/// handlers run one at a time, so data that only they use needs no lock.
/// Lane 0 overtakes lane 1: all arrived work of lane 0 runs before each item of lane 1. Within a lane, work
/// runs in order of arrival.
/// Threads:   any, unless a function states otherwise. A callback that throws ends the process.
/// Real time: queuing an existing block asynchronously (creating a CXBlock from a lambda allocates), while at
///            most a thousand items are pending in the whole process (TFA_reserve for 16 bytes prepares for
///            more); and a bypass, which neither waits nor wakes a thread if the queue is idle. The
///            synchronous functions wait.
/// Fails:     incorrect use asserts, with "CXDispatchQueue" and a line: a lane other than 0 and 1, work for a
///            cancelled queue, waiting for the queue on the queue itself.
/// The thread keeps the queue alive until the queue is cancelled and its work has finished.
class CX_QUEUE_CAPABILITY DXR_EXPORT CXDispatchQueue final : public CXObject {
public:
    using Work = CXBlock<void()>;
    using BorrowedWork = CXBlockRef<void()>;

    /// Creates a queue without a name.
    static CXRef<CXDispatchQueue> init() { return initWithName(std::nullopt); }
    /// Creates a queue. Its thread has the same name, cut to 15 bytes. Returns null if no thread can be
    /// created.
    static CXRef<CXDispatchQueue> initWithName(std::optional<std::string> name);

    const std::optional<std::string>& name() const noexcept { return _name; }
    /// The thread that is running the queue's work; 0 if none is.
    pthread_t owner() const noexcept CX_REALTIME;
    /// The queue's own thread; 0 after it has ended.
    pthread_t thread() const noexcept;
    /// Returns true if the calling thread is running this queue's work, as the queue's thread or by borrowing
    /// it.
    bool isDispatchedOnCurrentThread() const noexcept CX_REALTIME { return owner() == pthread_self(); }

    /// Runs `block` on the queue and returns when it has finished. Asserts if called on the queue itself.
    void dispatchSync(BorrowedWork block) { dispatchSync(CXDispatchClientLane, block); }
    void dispatchSync(uint32_t flags, BorrowedWork block);
    /// Queues `block` and returns.
    void dispatchAsync(const Work& block) CX_REALTIME { dispatchAsync(CXDispatchClientLane, block); }
    void dispatchAsync(uint32_t flags, const Work& block) CX_REALTIME;
    /// On the queue itself, runs `block` at once and returns true; otherwise behaves like dispatchSync() and
    /// returns false. Ignores a null block.
    bool dispatchSyncImmed(BorrowedWork block) { return dispatchSyncImmed(CXDispatchClientLane, block); }
    bool dispatchSyncImmed(uint32_t flags, BorrowedWork block);
    /// Like dispatchSyncImmed(), but with dispatchAsync() on other threads.
    bool dispatchAsyncImmed(const Work& block) { return dispatchAsyncImmed(CXDispatchClientLane, block); }
    bool dispatchAsyncImmed(uint32_t flags, const Work& block);
    /// Runs `block` as work of lane 0. If the queue is idle, runs it at once on the calling thread, followed
    /// by all work that arrives until the queue is idle again. If the queue is busy, waits like
    /// dispatchSync().
    void dispatchSyncBypass(BorrowedWork block) CX_REALTIME;
    /// Like dispatchSyncBypass(), but on the calling thread runs only `block`, lane 0 work that was queued
    /// before it, and at most one item of lane 1. The queue's thread runs the rest.
    void dispatchSyncBypassOnce(BorrowedWork block) CX_REALTIME;
    /// Like dispatchSyncBypassOnce(), but never waits: if the queue is busy, does nothing and returns false.
    bool dispatchSyncBypassOnceIfIdle(BorrowedWork block) CX_REALTIME;

    /// Delivers messages that arrive at the receiver's port on this queue. On a cancelled queue, cancels the
    /// receiver instead. CXDispatchReceiver and CXDispatchTimer call this and the next four functions; all
    /// but updateTimer() return when the change is done.
    void addReceiver(const CXRef<CXDispatchMember>& receiver);
    void removeReceiver(const CXRef<CXDispatchMember>& receiver);
    /// Fires the timer on this queue. On a cancelled queue, cancels the timer instead. Asserts if the timer
    /// is already on the queue.
    void addTimer(const CXRef<CXDispatchMember>& timer);
    void removeTimer(const CXRef<CXDispatchMember>& timer);
    /// Reschedules the timer by its current deadline and interval, asynchronously unless called on the queue.
    void updateTimer(const CXRef<CXDispatchMember>& timer);

    /// Puts the queue's thread under real-time scheduling; a refusal is logged. Returns when it is done. On a
    /// borrowing thread it returns at once, and the queue's thread does it before its next work.
    void setRealTime();
    /// The scheduling that setRealTime() has obtained; None before.
    CXRealtimeGrant realTimeGrant() const noexcept { return _realTimeGrant.load(); }
    /// Refuses later work, except with CXDispatchAfterCancel, and cancels the timers. The thread ends after
    /// the pending work; work queued with the flag after that runs on the thread that queues it.
    void cancel();

    /// For CX_ASSERT_ON_QUEUE: informs the compiler's analysis that the caller runs on the queue.
    void assumeCurrent() const noexcept CX_ASSERTS_QUEUE {}

private:
    explicit CXDispatchQueue(std::optional<std::string> name);
    ~CXDispatchQueue() override;

    void _checkLane(uint32_t flags) const;
    void _checkNotCancelled(uint32_t flags) const;
    void _checkNotOwner() const;
    bool _isCancelled() const noexcept { return _cancelled.load() != 0; }

    void _workloop();
    void _deliverMessage() noexcept;

    const std::optional<std::string> _name;
    const CXRef<dxr::PortSet> _portset;  // the receivers' ports and the wake-up signal
    std::atomic<uint32_t> _cancelled{0}; // bit 0: requested; bit 1: finished, set by the queue's thread
    std::atomic<CXRealtimeGrant> _realTimeGrant{CXRealtimeGrant::None};
    const std::unique_ptr<CXDispatchDrain> _drain;
    const std::unique_ptr<CXDispatchTimerList> _timers; // guarded by the right to drain
};

/// Asserts that the caller runs as work of `queue`, also for the compiler's analysis.
#define CX_ASSERT_ON_QUEUE(queue)                                                                            \
    ((queue)->isDispatchedOnCurrentThread()                                                                  \
         ? (queue)->assumeCurrent()                                                                          \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),                                 \
                              "[" #queue " isDispatchedOnCurrentThread]", __FILE__, __LINE__))
/// Asserts that the caller does not run as work of `queue`; used before waiting for the queue.
#define CX_ASSERT_NOT_ON_QUEUE(queue)                                                                        \
    (!(queue)->isDispatchedOnCurrentThread()                                                                 \
         ? static_cast<void>(0)                                                                              \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),                                 \
                              "![" #queue " isDispatchedOnCurrentThread]", __FILE__, __LINE__))
