#pragma once

#include "AlsaPcm.h"
#include "AlsaTimeline.h"
#include "HALDeviceDriver.h"
#include "Thread.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

class AlsaCard;

/// What a run needs to know of its device.
struct AlsaRunSetup {
    std::string pcmName; ///< "hw:1,0"
    std::string deviceName;
    std::optional<AlsaSetup> input, output;
    uint32_t rate = 0; ///< Hz
    uint32_t frameCount = 0;
};

/// The IO of one device from its start to its stop: a thread that opens the device, runs its cycles, both directions in
/// one, and opens it again when it stops delivering.
/// Threads: made, started and destroyed by one at a time; yield() and the queries from any. One of its own.
class AlsaRun {
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
    /// Closes the device soon, for another program; it is tried again later. Does not wait.
    void yield();

    bool isStalled() const noexcept { return _isStalled.load(std::memory_order_relaxed); }
    double rateRatio() const noexcept { return _rateRatio.load(std::memory_order_relaxed); }

private:
    enum class Wish : int { Run, Yield, Stop };

    void _run();
    int _runOnce();
    int _open();
    void _close();
    int _begin() noexcept;
    int _restart() noexcept;
    int _wait() noexcept;
    int _poll(size_t place) noexcept;
    void _cycle(int& error) noexcept CX_REALTIME;
    void _fillTimes(HALCycle& cycle, const AlsaTimeline::Step& step) const noexcept CX_REALTIME;
    void _noteRatio(const AlsaTimeline::Step& step) noexcept CX_REALTIME;
    void _noteStart(int error);
    void _setStalled(bool isStalled, int error);
    void _wake() const noexcept;
    void _sleep(int milliseconds) const noexcept;

    const AlsaRunSetup _setup;
    const CXRef<AlsaCard> _card;
    const CXRef<HALIOProcTable> _table;
    AlsaTimeline& _timeline;
    const std::function<void()> _changed;
    const int _wakeUps; // eventfd, readable when _wish has changed

    // The IO thread's alone.
    std::array<std::unique_ptr<AlsaPcm>, 2> _pcms; // by HALDirection
    bool _isLinked = false;
    std::vector<pollfd> _polled;  // _wakeUps, then the input's, then the output's
    std::array<size_t, 2> _first; // of each direction in _polled
    std::vector<float> _input, _output;
    WhenRefused _whenRefused = WhenRefused::End;
    uint64_t _cycleCount = 0; // since the last begin
    uint64_t _ratioNanoseconds = 0;
    bool _hasNews = false;
    bool _hadCycle = false;
    bool _isLogged = false;

    // Written by one side, read by the other; each complete by itself. _wish is seen at the next wait, which _wakeUps
    // ends at once; it goes from Run to Yield and back, by exchange, until it is Stop for good.
    std::atomic<Wish> _wish{Wish::Run};
    std::atomic<bool> _isStalled{false};
    std::atomic<double> _rateRatio{1.0};

    std::mutex _mutex; // guards what follows; never taken in a cycle
    std::condition_variable _settled;
    std::optional<int> _startError; // of the first cycle, once that is known
    platform::Thread _thread;
};
