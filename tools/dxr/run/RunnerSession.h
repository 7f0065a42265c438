#pragma once

#include "CycleStatistics.h"
#include "Interrupts.h"
#include "SessionDevice.h"

#include <algorithm>
#include <chrono>
#include <dxr/DXRDeviceRunner.h>
#include <functional>
#include <map>

/// Runs the devices of a command until the user ends it, even when devices disconnect.
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
    ~RunnerSession()
    {
        _records = nullptr; // it may have thrown before and must not throw here
        stop();
    }
    RunnerSession(const RunnerSession&) = delete;
    RunnerSession& operator=(const RunnerSession&) = delete;

    void add(const DeviceSelection& selection, const DXRIOBlock& block);
    /// Adds `selections`, with blocks that call the member function `block` of `part` with the selection's
    /// index and keep `part` alive.
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
    /// Sets a function that is called when counting begins: once cycles are regular, or after three seconds.
    void setSettled(std::function<void()> settled) { _settled = std::move(settled); }
    /// Returns false if the user has asked to stop. Throws ToolFailure if the devices do not start.
    bool start();
    /// Waits for events and calls poll(). Returns false if the user has asked to stop.
    bool wait(int milliseconds);
    void poll();
    /// Stops the runner, if it runs. Once the user has asked to stop, does not wait for a server that hangs.
    void stop();
    /// Begins to count now instead of once the cycles are regular.
    void beginCounting()
    {
        _isCounting = true;
        _statistics.beginCounting();
        for (SessionDevice& device : _devices)
            device.beginCounting();
    }
    bool isCounting() const { return _isCounting; }

    uint32_t frameCount() const { return _frameCount; } ///< of a block, once started
    double sampleRate() const { return _sampleRate; }   ///< Hz, once started
    /// Since start().
    double seconds() const { return std::chrono::duration<double>(Clock::now() - _started).count(); }
    const CycleStatistics& statistics() const { return _statistics; }
    /// Frames lost in gaps between cycles, and within aggregates.
    uint64_t lostFrames() const
    {
        uint64_t lost = _statistics.lostFrames;
        for (const SessionDevice& device : _devices)
            lost += device.lostFrames();
        return lost;
    }
    /// Of the first input, from air to block, or output, from block to air. Null while it does not run.
    std::optional<double> latencySeconds(HALDirection direction) const
    {
        const std::vector<DXRDeviceLatency> all =
            _runner ? _runner->latencies() : std::vector<DXRDeviceLatency>();
        const auto found =
            std::ranges::find(all, direction == HALDirection::Input, &DXRDeviceLatency::isInput);
        return found == all.end() ? std::nullopt : std::optional(found->seconds());
    }
    const std::vector<SessionDevice>& devices() const { return _devices; }
    /// Whether each of the devices is connected.
    std::vector<bool> connections() const
    {
        std::vector<bool> all;
        std::ranges::transform(_devices, std::back_inserter(all), &SessionDevice::isConnected);
        return all;
    }
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
    void _report(const std::string& message)
    {
        _messages.push_back(formatSeconds(seconds()) + "  " + message);
    }
    std::string _names() const { return joined(_devices, ", ", &SessionDevice::name); }
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
