#pragma once

#include "AlsaCard.h"
#include "AlsaTimeline.h"
#include "HALDeviceDriver.h"
#include "Thread.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

/// What a device keeps from run to run, and what a run reports of itself.
struct AlsaRunState {
    AlsaTimeline timeline{}; ///< the run's while there is one
    // Written by the IO thread, read by AlsaDevice::refresh(), each complete by itself. `changed` is called afterwards, on the
    // IO thread outside cycles or when the run ends; it does not wait.
    std::atomic<bool> isOpen{false};    ///< from before the device is opened until it is closed
    std::atomic<bool> isStalled{false}; ///< delivery failed, and no cycle has come since
    std::atomic<double> rateRatio{1.0}; ///< frames per nominal frame, when that has last changed audibly
    const std::function<void()> changed;
};

/// The IO of one device from its start to its stop: a thread that opens the device, runs its cycles, both directions in
/// one, and opens it again when it stops delivering.
/// Threads: made, started and destroyed by one at a time. One of its own.
class AlsaRun final : private AlsaReservation::Holder {
public:
    AlsaRun(AlsaSetup setup, CXRef<AlsaCard> card, CXRef<HALIOProcTable> table, AlsaRunState& state);
    /// No cycle runs after it.
    ~AlsaRun();
    AlsaRun(const AlsaRun&) = delete;
    AlsaRun& operator=(const AlsaRun&) = delete;

    enum class WhenRefused { End, Retry };
    /// Waits for the first cycle. After an error nothing is left running, or it goes on trying.
    HALStatus start(HALDeadline deadline, WhenRefused whenRefused);

private:
    enum class Request : int { Run, Yield, Stop };

    /// The device is tried again later.
    void yield() override;
    void _run();
    int _runOnce();
    int _open();
    void _close();
    int _begin() noexcept;
    int _wait() noexcept;
    int _poll(const AlsaPcm& pcm) noexcept;
    int _cycle() noexcept CX_REALTIME;
    void _fillTimes(HALCycle& cycle) const noexcept CX_REALTIME;
    void _noteCycle();
    void _noteStall(int error);
    void _noteStart(int error);
    bool _shallRun() const noexcept { return _request.load(std::memory_order_relaxed) == Request::Run; }
    void _wake() const noexcept;
    void _sleep(int milliseconds) const noexcept;

    const AlsaSetup _setup;
    const CXRef<AlsaCard> _card;
    const CXRef<HALIOProcTable> _table;
    AlsaRunState& _state;
    const int _wakeUps; // eventfd, readable when _request has changed

    // The IO thread's alone.
    std::array<std::unique_ptr<AlsaPcm>, 2> _pcms; // by HALDirection
    bool _isLinked = false;
    std::array<std::vector<float>, 2> _samples; // of one cycle
    WhenRefused _whenRefused = WhenRefused::End;
    uint64_t _cycleCount = 0;   // since the last begin
    AlsaTimeline::Step _step{}; // of the last cycle
    double _ratioNanoseconds = 0.0;
    bool _hadCycle = false; // since the device was opened
    bool _isLogged = false;

    // Seen at the next wait, which _wakeUps ends at once. Goes from Run to Yield and back, by exchange, until it is Stop for
    // good.
    std::atomic<Request> _request{Request::Run};

    std::mutex _mutex; // guards what follows; never taken in a cycle
    std::condition_variable _settled;
    std::optional<int> _startError; // of the first cycle, once that is known
    dxr::Thread _thread;
};
