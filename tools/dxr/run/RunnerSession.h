#pragma once

#include "CycleStatistics.h"
#include "Interrupts.h"
#include "SessionDevice.h"

#include <chrono>
#include <dxr/DXRDeviceRunner.h>
#include <functional>
#include <map>

/// A runner over the devices of a command until the user ends it, with statistics and messages. It goes on
/// when devices disconnect.
/// Threads: the main thread, whose queue it serves.
class RunnerSession {
public:
    /// Receives every record of the runner's trace, in order. What it throws is thrown by poll(), wait() and
    /// stop().
    using Records = std::function<void(std::span<const DXRCycleRecord>)>;

    /// Without a frame count (of a block) or rate (Hz), the devices decide. Throws ToolFailure for one that
    /// no device has.
    RunnerSession(const Interrupts& interrupts, std::optional<uint32_t> frameCount,
                  std::optional<double> sampleRate,
                  DXRConversionQuality quality = DXRConversionQuality::High);
    ~RunnerSession();
    RunnerSession(const RunnerSession&) = delete;
    RunnerSession& operator=(const RunnerSession&) = delete;

    void add(const DeviceSelection& selection, const DXRIOBlock& block);
    /// Adds each selection with `block` of `part`, which is called with its place among them and kept alive.
    template <class Part>
    void add(const std::vector<DeviceSelection>& selections, const CXRef<Part>& part,
             void (Part::*block)(size_t, uint64_t, DXRBuffer&) noexcept)
    {
        for (size_t place = 0; place < selections.size(); ++place)
            add(selections[place], [part, block, place](uint64_t sampleTime, DXRBuffer& buffer) {
                ((*part).*block)(place, sampleTime, buffer);
            });
    }
    void setRecords(Records records) { _records = std::move(records); }
    /// Called once, when cycles come regularly, or after three seconds; the session counts from then on.
    void setSettled(std::function<void()> settled) { _settled = std::move(settled); }
    /// False when the user has asked to stop. Throws ToolFailure when the devices do not start.
    bool start();
    /// Waits for events, up to so long, and then polls. False when the user has asked to stop.
    bool wait(int milliseconds);
    /// Reads the trace, the devices and the counts.
    void poll();
    /// Stops the runner, if it runs. Does not wait for a server that hangs once the user has asked to stop.
    void stop();
    /// Counts from now on. Else from when it has settled.
    void beginCounting();
    bool isCounting() const { return _isCounting; }

    uint32_t frameCount() const { return _frameCount; } ///< of a block, once started
    double sampleRate() const { return _sampleRate; }   ///< Hz, once started
    double seconds() const;                             ///< since start()
    const CycleStatistics& statistics() const { return _statistics; }
    /// In gaps between cycles, and within aggregates.
    uint64_t lostFrames() const;
    /// From the air to the block of the first input, and from the block to the air of the first output; null
    /// while it does not run.
    std::optional<double> latencySeconds(HALDirection direction) const;
    const std::vector<SessionDevice>& devices() const { return _devices; }
    std::vector<bool> connections() const; ///< whether each of the devices is connected
    uint64_t sampleTime() const { return _runner ? _runner->sampleTime() : 0; } ///< of the next block
    /// The source of the cycles: "3 devices as one, by the clock of Desk", "Desk alone", "no device: …".
    std::string contextText() const;
    /// The messages since the last call, a line each.
    std::vector<std::string> takeMessages() { return std::exchange(_messages, {}); }
    /// A summary of the cycles and devices, in lines.
    std::vector<std::string> report() const;

private:
    using Clock = std::chrono::steady_clock;

    void _readTrace();
    void _noteRecord(const DXRCycleRecord& record);
    void _updateDevices();
    void _updateDefaults();
    void _readSubDevices();
    void _detectHang();
    void _settle();
    void _report(const std::string& message);
    std::string _names() const;
    std::string _reportOf(const SessionDevice& device) const;

    const Interrupts& _interrupts;
    CXRef<DXRDeviceRunner> _runner; // null once stopped, or left behind in a server that hangs
    const CXRef<DXRCycleTrace> _trace = DXRCycleTrace::init();
    std::vector<DXRCycleRecord> _batch;
    Records _records;
    std::function<void()> _settled;
    CycleStatistics _statistics;
    std::vector<SessionDevice> _devices;                // each once, also when it has both directions
    std::map<HALDirection, CXRef<DXRDevice>> _defaults; // the current ones that are followed
    DXRDeviceRunner::Devices _chosen;                   // all others
    std::vector<std::string> _messages;
    Clock::time_point _started;
    uint32_t _frameCount = 0;
    double _sampleRate = 0.0;
    AudioObjectID _contextDevice = kAudioObjectUnknown; // the one with the cycles; 0 for the timer
    bool _isAggregate = false, _isCounting = false, _isHanging = false;
    bool _hasFailed = false;   // the last context did not start
    double _lastCycleAt = 0.0; // seconds()
};
