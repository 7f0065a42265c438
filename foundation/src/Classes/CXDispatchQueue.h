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

// The flags of a dispatch: the lane in bits 0 to 7, and what is added to it.
inline constexpr uint32_t CXDispatchHousekeepingLane = 0; ///< overtakes client work; the queue's own steps
inline constexpr uint32_t CXDispatchClientLane = 1;       ///< what the forms without flags use
inline constexpr uint32_t CXDispatchAfterCancel = 0x100;  ///< allowed once the queue is cancelled

/// A serial queue served by a thread of its own, which also fires timers and delivers messages to receivers:
/// all of it one at a time, so that code reached from any of them needs no lock.
/// Lane 0 overtakes lane 1: before each item of lane 1 runs, everything of lane 0 that has arrived has run.
/// Within a lane, order of arrival.
/// Threads:   any, unless a method says otherwise. A callback that throws ends the process.
/// Real time: pushing asynchronous work made beforehand (making a CXBlock of a lambda allocates), as long as
///            no more than a thousand pieces wait in the whole process (TFA_reserve for 16 bytes prepares for
///            more); and a bypass, which on an idle queue neither waits nor wakes a thread. The synchronous
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
    /// Its thread takes the name, cut to the kernel's 15 bytes. Null when no thread can be created.
    static CXRef<CXDispatchQueue> initWithName(std::optional<std::string> name);

    const std::optional<std::string>& name() const noexcept { return _name; }
    /// Which thread is running queue work now; 0 for none.
    pthread_t owner() const noexcept CX_REALTIME;
    /// The queue's own thread; 0 once it has ended.
    pthread_t thread() const noexcept;
    /// Whether the calling thread is running this queue's work, its own or borrowed.
    bool isDispatchedOnCurrentThread() const noexcept CX_REALTIME { return owner() == pthread_self(); }

    /// Runs `block` on the queue and returns when it has run. Not from the queue itself: that asserts.
    void dispatchSync(BorrowedWork block) { dispatchSync(CXDispatchClientLane, block); }
    void dispatchSync(uint32_t flags, BorrowedWork block);
    /// Runs `block` on the queue some time after the call.
    void dispatchAsync(const Work& block) CX_REALTIME { dispatchAsync(CXDispatchClientLane, block); }
    void dispatchAsync(uint32_t flags, const Work& block) CX_REALTIME;
    /// From the queue itself, runs `block` at once and returns true; from elsewhere as dispatchSync, and
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
    void addReceiver(const CXRef<CXDispatchMember>& receiver);
    void removeReceiver(const CXRef<CXDispatchMember>& receiver);
    /// Has the timer fire here. On a cancelled queue, cancels the timer instead. One that is here asserts.
    void addTimer(const CXRef<CXDispatchMember>& timer);
    void removeTimer(const CXRef<CXDispatchMember>& timer);
    /// Schedules the timer anew by its own deadline and interval, soon.
    void updateTimer(const CXRef<CXDispatchMember>& timer);

    /// Puts the queue's thread under real-time scheduling; a refusal is logged. Returns when it is done; from
    /// work that runs on a borrowing thread, at once, and the queue's thread does it before its next work.
    void setRealTime();
    /// What setRealTime() has obtained; None before.
    CXRealtimeGrant realTimeGrant() const noexcept { return _realTimeGrant.load(); }
    /// No new work from now on, except with CXDispatchAfterCancel; timers are cancelled. The thread ends
    /// after the pending work. Work allowed after that runs on the thread that queues it.
    void cancel();

    /// For CX_ASSERT_ON_QUEUE: states to the analysis what has just been checked.
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
    const CXRef<dxr::PortSet> _portset; // the receivers' ports, and the signal
    std::atomic<uint32_t> _cancelled{
        0}; // bit 0: requested, bit 1: finished; the second by the queue's thread
    std::atomic<CXRealtimeGrant> _realTimeGrant{CXRealtimeGrant::None};
    const std::unique_ptr<CXDispatchDrain> _drain;
    const std::unique_ptr<CXDispatchTimerList> _timers; // guarded by the right to drain
};

/// Asserts that the caller runs as work of `queue`, and states so to the compiler's analysis.
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
