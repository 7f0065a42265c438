#pragma once

#include "AlsaCard.h"
#include "AlsaTimeline.h"
#include "HALDeviceDriver.h"
#include "Thread.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

/// What a run needs to know of its device.
struct AlsaRunSetup {
    std::string pcmName; ///< "hw:1,0"
    std::string deviceName;
    std::array<uint32_t, 2> channels{}; ///< by HALDirection; 0: it does not have that direction
    uint32_t rate = 0;                  ///< Hz
    uint32_t frameCount = 0;
    uint32_t periodCount = 0;
};

/// The IO of one device from its start to its stop: a thread that opens the device, runs its cycles, both directions in
/// one, and opens it again when it stops delivering.
/// Threads: made, started and destroyed by one at a time; the queries from any. One of its own.
class AlsaRun final : private AlsaReservation::Holder {
public:
    /// `changed` is called on the IO thread, outside cycles, when isStalled() or rateRatio() has changed; it does not wait.
    AlsaRun(AlsaRunSetup setup, CXRef<AlsaCard> card, CXRef<HALIOProcTable> table, AlsaTimeline& timeline,
            std::function<void()> changed);
    /// No cycle runs after it.
    ~AlsaRun();
    AlsaRun(const AlsaRun&) = delete;
    AlsaRun& operator=(const AlsaRun&) = delete;

    enum class WhenRefused { End, Retry };
    /// Waits for the first cycle. After an error nothing is left running, or it goes on trying.
    HALStatus start(HALDeadline deadline, WhenRefused whenRefused);

    bool isStalled() const noexcept { return _isStalled.load(std::memory_order_relaxed); }
    double rateRatio() const noexcept { return _rateRatio.load(std::memory_order_relaxed); }

private:
    enum class Request : int { Run, Yield, Stop };

    /// The device is tried again later.
    void yield() override;
    void _run();
    int _runOnce();
    int _open();
    int _open(HALDirection direction, bool mayBeBusy);
    void _close();
    int _begin() noexcept;
    int _restart() noexcept;
    int _wait() noexcept;
    int _poll(const AlsaPcm& pcm) noexcept;
    void _cycle(int& error) noexcept CX_REALTIME;
    void _fillTimes(HALCycle& cycle, const AlsaTimeline::Step& step) const noexcept CX_REALTIME;
    void _noteRatio(const AlsaTimeline::Step& step) noexcept CX_REALTIME;
    void _noteStart(int error);
    void _setStalled(bool isStalled, int error);
    bool _shallRun() const noexcept { return _request.load(std::memory_order_relaxed) == Request::Run; }
    void _wake() const noexcept;
    void _sleep(int milliseconds) const noexcept;

    const AlsaRunSetup _setup;
    const CXRef<AlsaCard> _card;
    const CXRef<HALIOProcTable> _table;
    AlsaTimeline& _timeline;
    const std::function<void()> _changed;
    const int _wakeUps; // eventfd, readable when _request has changed

    // The IO thread's alone.
    std::array<std::unique_ptr<AlsaPcm>, 2> _pcms; // by HALDirection
    bool _isLinked = false;
    std::array<std::vector<float>, 2> _samples; // of one cycle
    WhenRefused _whenRefused = WhenRefused::End;
    uint64_t _cycleCount = 0; // since the last begin
    uint64_t _ratioNanoseconds = 0;
    bool _hasNews = false;
    bool _hadCycle = false;
    bool _isLogged = false;

    // Written by one side, read by the other; each complete by itself. _request is seen at the next wait, which _wakeUps
    // ends at once; it goes from Run to Yield and back, by exchange, until it is Stop for good.
    std::atomic<Request> _request{Request::Run};
    std::atomic<bool> _isStalled{false};
    std::atomic<double> _rateRatio{1.0};

    std::mutex _mutex; // guards what follows; never taken in a cycle
    std::condition_variable _settled;
    std::optional<int> _startError; // of the first cycle, once that is known
    dxr::Thread _thread;
};
