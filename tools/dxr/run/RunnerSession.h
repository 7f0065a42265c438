#pragma once

#include "CycleStatistics.h"
#include "Interrupts.h"
#include "SessionDevice.h"

#include <chrono>
#include <dxr/DXRDeviceRunner.h>
#include <functional>
#include <map>

/// Runs the devices of a command until the user ends it, with statistics and messages. The session continues
/// when devices disconnect.
/// Threads: the main thread. Serves the main queue.
class RunnerSession {
public:
    /// Receives every record of the runner's trace, in order. Its exceptions leave poll(), wait() and stop().
    using Records = std::function<void(std::span<const DXRCycleRecord>)>;

    /// `frameCount` is that of a block, `sampleRate` is in Hz; if null, they are taken from the devices.
    /// Throws ToolFailure for values that no device supports.
    RunnerSession(const Interrupts& interrupts, std::optional<uint32_t> frameCount,
                  std::optional<double> sampleRate,
                  DXRConversionQuality quality = DXRConversionQuality::High);
    ~RunnerSession();
    RunnerSession(const RunnerSession&) = delete;
    RunnerSession& operator=(const RunnerSession&) = delete;

    void add(const DeviceSelection& selection, const DXRIOBlock& block);
    /// Adds each of `selections` with the member function `block` of `part`, which receives the index of the
    /// selection. The session keeps `part` alive.
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
    /// Sets a function that is called once: when cycles run regularly, or after three seconds. The session
    /// then begins to count.
    void setSettled(std::function<void()> settled) { _settled = std::move(settled); }
    /// Returns false if the user has asked to stop. Throws ToolFailure if the devices do not start.
    bool start();
    /// Waits for events, for up to `milliseconds`, and calls poll(). Returns false if the user has asked to
    /// stop.
    bool wait(int milliseconds);
    void poll();
    /// Stops the runner, if it runs. Once the user has asked to stop, does not wait for a server that hangs.
    void stop();
    /// Begins to count now instead of once the cycles are regular.
    void beginCounting();
    bool isCounting() const { return _isCounting; }

    uint32_t frameCount() const { return _frameCount; } ///< of a block, once started
    double sampleRate() const { return _sampleRate; }   ///< Hz, once started
    double seconds() const;                             ///< since start()
    const CycleStatistics& statistics() const { return _statistics; }
    /// Frames lost in gaps between cycles, and within aggregates.
    uint64_t lostFrames() const;
    /// For the first input, from the air to the block; for the first output, from the block to the air. Null
    /// while the device does not run.
    std::optional<double> latencySeconds(HALDirection direction) const;
    const std::vector<SessionDevice>& devices() const { return _devices; }
    std::vector<bool> connections() const; ///< whether each of the devices is connected
    uint64_t sampleTime() const { return _runner ? _runner->sampleTime() : 0; } ///< of the next block
    /// The source of the cycles: "3 devices as one, by the clock of Desk", "Desk alone", "no device: …".
    std::string contextText() const;
    /// The messages since the last call, one line each.
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
    CXRef<DXRDeviceRunner> _runner; // null once stopped, or once abandoned because a server hangs
    const CXRef<DXRCycleTrace> _trace = DXRCycleTrace::init();
    std::vector<DXRCycleRecord> _batch;
    Records _records;
    std::function<void()> _settled;
    CycleStatistics _statistics;
    std::vector<SessionDevice> _devices;                // a device with both directions is listed once
    std::map<HALDirection, CXRef<DXRDevice>> _defaults; // the current default devices, if followed
    DXRDeviceRunner::Devices _chosen;                   // the devices that were named
    std::vector<std::string> _messages;
    Clock::time_point _started;
    uint32_t _frameCount = 0;
    double _sampleRate = 0.0;
    AudioObjectID _contextDevice = kAudioObjectUnknown; // the source of the cycles; 0 for the timer
    bool _isAggregate = false, _isCounting = false, _isHanging = false;
    bool _hasFailed = false;   // the last context did not start
    double _lastCycleAt = 0.0; // seconds()
};
