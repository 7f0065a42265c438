#pragma once

#include "CycleStatistics.h"
#include "Interrupts.h"
#include "SessionDevice.h"

#include <chrono>
#include <dxr/DXRDeviceRunner.h>
#include <functional>
#include <map>

/// A runner over the devices of a command, from its start until the user ends it: its cycles counted, and a message for each
/// device that comes or goes. Devices that disconnect do not end it.
/// Threads: one, which also serves the main queue.
class RunnerSession {
public:
    /// Is called with every record of the runner's trace, in order. What it throws leaves poll(), wait() and stop().
    using Records = std::function<void(std::span<const DXRCycleRecord>)>;

    /// Where frame count (of a block) and rate, in Hz, are not given, the devices decide. Throws ToolFailure for such as
    /// no device has.
    RunnerSession(const Interrupts& interrupts, std::optional<uint32_t> frameCount,
                  std::optional<double> sampleRate,
                  DXRConversionQuality quality = DXRConversionQuality::High);
    ~RunnerSession();
    RunnerSession(const RunnerSession&) = delete;
    RunnerSession& operator=(const RunnerSession&) = delete;

    void add(const DeviceSelection& selection, const DXRIOBlock& block);
    void setRecords(Records records) { _records = std::move(records); }
    /// False when the user asked to stop meanwhile. Throws ToolFailure when the devices do not start.
    bool start();
    /// Waits so long, or until there is something to do, and then as poll(). False when the user has asked to stop.
    bool wait(int milliseconds);
    /// Reads what has happened: the trace, the devices, the counts.
    void poll();
    /// Stops the runner, if it runs. A server that hangs is not waited for once the user has asked.
    void stop();

    /// Whether cycles come regularly by now, or it is no use to wait longer; then beginCounting(), once.
    bool isSettled() const;
    void beginCounting();

    uint32_t frameCount() const { return _frameCount; } ///< of a block, once started
    double sampleRate() const { return _sampleRate; }   ///< Hz, once started
    double seconds() const;                             ///< of the clock on the wall, since start()
    const CycleStatistics& statistics() const { return _statistics; }
    /// What the runner has counted since beginCounting(); frames also with contexts that are over.
    struct Counts {
        uint64_t lateCycles = 0, lostFrames = 0, restarts = 0;
    };
    const Counts& counts() const { return _counts; }
    /// From the air at the first input to the air at the first output, seconds; nothing while one does not run.
    std::optional<double> roundTripSeconds() const;
    const std::vector<SessionDevice>& devices() const { return _devices; }
    uint64_t sampleTime() const { return _runner ? _runner->sampleTime() : 0; } ///< of the next block
    /// The device whose cycles the runner's are; 0 for the timer.
    AudioObjectID contextDevice() const { return _contextDevice; }
    /// What the cycles come from: "3 devices as one, by the clock of Desk", "Desk alone", "no device: …".
    std::string contextText() const;
    /// What has happened since the last call, a line each.
    std::vector<std::string> takeMessages() { return std::exchange(_messages, {}); }
    /// What the cycles and the devices were like, a line each, for the end of a command.
    std::vector<std::string> report() const;

private:
    using Clock = std::chrono::steady_clock;

    void _readTrace();
    void _readCounts();
    void _updateDevices();
    void _updateDefaults();
    void _readSubDevices();
    void _detectHang();
    void _report(const std::string& what);
    std::string _names() const;
    std::string _reportOf(const SessionDevice& device) const;

    const Interrupts& _interrupts;
    CXRef<DXRDeviceRunner> _runner; // null when it was left behind in a server that hangs
    const CXRef<DXRCycleTrace> _trace = DXRCycleTrace::init();
    std::vector<DXRCycleRecord> _batch;
    Records _records;
    CycleStatistics _statistics;
    DXRRunnerCounts _lastCounts, _countsBefore; // as last read; when counting began
    uint64_t _lostBefore = 0;                   // with contexts that are over
    Counts _counts;
    std::vector<SessionDevice> _devices;                // each once, also when it has both directions
    std::map<HALDirection, CXRef<DXRDevice>> _defaults; // that are followed, as they are now
    DXRDeviceRunner::Devices _chosen;                   // that were added by themselves
    std::vector<std::string> _messages;
    Clock::time_point _started;
    uint32_t _frameCount = 0;
    double _sampleRate = 0.0;
    AudioObjectID _contextDevice = kAudioObjectUnknown;
    bool _isAggregate = false;
    bool _hasFailed = false;   // the last context did not start
    double _lastCycleAt = 0.0; // seconds()
    bool _isHanging = false;
};
