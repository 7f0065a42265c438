#pragma once

#include "AlsaCard.h"
#include "AlsaTimeline.h"
#include "HALDeviceDriver.h"
#include "Thread.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

/// The state that a device keeps between runs, and the state that a run reports.
struct AlsaRunState {
    AlsaTimeline timeline{}; ///< used by the run while there is one
    /// From before the directions of a run are chosen until it ends; set by AlsaDevice, cleared by the run.
    std::atomic<bool> isPlanned{false};
    // Written by the IO thread, read by AlsaDevice::refresh(); independent of each other. `changed` is called
    // afterwards, on the IO thread between cycles or at the end of the run; it does not wait.
    std::atomic<bool> isOpen{false};    ///< from before the device is opened until it is closed
    std::atomic<bool> isStalled{false}; ///< IO has failed, and no cycle has run since
    std::atomic<double> rateRatio{1.0}; ///< frames per nominal frame, after the last audible change
    const std::function<void()> changed;
};

/// The IO of one device from start to stop: a thread that opens the device, runs its cycles, each with both
/// directions, and reopens the device if it stops delivering audio.
/// Threads: created, started and destroyed by one thread at a time; has an IO thread.
class AlsaRun final : private AlsaReservation::Holder {
public:
    AlsaRun(AlsaSetup setup, CXRef<AlsaCard> card, CXRef<HALIOProcTable> table, AlsaRunState& state);
    /// Stops. No cycle runs afterwards.
    ~AlsaRun();
    AlsaRun(const AlsaRun&) = delete;
    AlsaRun& operator=(const AlsaRun&) = delete;

    enum class WhenRefused { End, Retry };
    /// Starts and waits for the first cycle. On an error either nothing is left running (End), or the run
    /// keeps trying (Retry). Without a thread it cannot try: it is stalled until it is destroyed.
    HALStatus start(HALDeadline deadline, WhenRefused whenRefused);

private:
    enum class Request : int { Run, Yield, Stop };

    /// Closes the device; it is reopened later.
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
    bool _isWorthALine(int error) const;
    bool _shallRun() const noexcept { return _request.load(std::memory_order_relaxed) == Request::Run; }
    void _wake() const noexcept;
    void _sleep(int milliseconds) const noexcept;

    const AlsaSetup _setup;
    const CXRef<AlsaCard> _card;
    const CXRef<HALIOProcTable> _table;
    AlsaRunState& _state;
    const int _wakeUps; // eventfd, readable when _request has changed

    // Used by the IO thread only.
    std::array<std::unique_ptr<AlsaPcm>, 2> _pcms; // by HALDirection
    bool _isLinked = false;
    std::array<std::vector<float>, 2> _samples; // of one cycle
    WhenRefused _whenRefused = WhenRefused::End;
    uint64_t _cycleCount = 0;   // since the last _begin()
    AlsaTimeline::Step _step{}; // of the last cycle
    double _ratioNanoseconds = 0.0;
    bool _hadCycle = false; // since the device was opened
    bool _isLogged = false;

    // Read in the next wait, which _wakeUps ends at once. Changes between Run and Yield by compare-exchange;
    // Stop is final.
    std::atomic<Request> _request{Request::Run};

    std::mutex _mutex; // guards what follows; never taken in a cycle
    std::condition_variable _settled;
    std::optional<int> _startError; // of the first cycle, once known; 0 for success
    dxr::Thread _thread;
};
