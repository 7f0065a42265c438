#include "RunnerSession.h"

#include "DeviceProperties.h"

#include <dxr/MainQueue.h>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

RunnerSession::RunnerSession(const Interrupts& interrupts, std::optional<uint32_t> frameCount,
                             std::optional<double> sampleRate, DXRConversionQuality quality)
    : _interrupts(interrupts), _runner(DXRDeviceRunner::init()), _batch(1024)
{
    if (!_runner)
        throw ToolFailure("cannot create a thread");
    _runner->setConversionQuality(quality);
    if (frameCount && !_runner->setFrameCount(*frameCount))
        throw ToolFailure(formatText("no device runs in blocks of %u frames", *frameCount));
    if (sampleRate && !_runner->setSampleRate(*sampleRate))
        throw ToolFailure("no device runs at " + formatRate(*sampleRate));
    _runner->setCycleTrace(_trace);
}

void RunnerSession::add(const DeviceSelection& selection, const DXRIOBlock& block)
{
    const bool isInput = selection.device->isInput();
    if (selection.isDefault) {
        using Direction = DXRDeviceRunner::Direction;
        _runner->addDefaultDevice(isInput ? Direction::Input : Direction::Output, selection.channels, block);
        _defaults[isInput ? HALDirection::Input : HALDirection::Output] = selection.device;
    } else {
        _runner->addDevice(selection.device, selection.channels, block);
        _chosen.insert(selection.device);
    }
    if (std::ranges::find(_devices, selection.report.uid, &SessionDevice::uid) == _devices.end())
        _devices.emplace_back(selection);
}

bool RunnerSession::start()
{
    _started = Clock::now();
    if (!_interrupts.runUnlessAsked([runner = _runner] { runner->start(); })) {
        _runner = nullptr; // the thread that is still starting it holds the other reference
        return false;
    }
    poll();
    if (_hasFailed)
        throw ToolFailure(_names() + ": " + (_devices.size() > 1 ? "do" : "does") + " not start");
    _frameCount = _runner->frameCount();
    _sampleRate = _runner->sampleRate();
    return !_interrupts.wasAsked();
}

void RunnerSession::stop()
{
    constexpr int graceMilliseconds = 300;
    if (!_runner)
        return;
    const bool hasStopped =
        _interrupts.runUnlessAsked([runner = _runner] { runner->stop(); }, graceMilliseconds);
    _runner = nullptr;
    if (hasStopped)
        _readTrace();
}

bool RunnerSession::wait(int milliseconds)
{
    const bool goesOn = _interrupts.wait(milliseconds, dxr::MainQueue::shared().fd());
    poll();
    return goesOn;
}

// ---- Polling

void RunnerSession::poll()
{
    dxr::MainQueue::shared().drain();
    _readTrace();
    _updateDefaults();
    _updateDevices();
    _readSubDevices();
    _detectHang();
    _settle();
}

void RunnerSession::_readTrace()
{
    while (const size_t count = _trace->read(_batch)) {
        const std::span<const DXRCycleRecord> records(_batch.data(), count);
        for (const DXRCycleRecord& record : records)
            _noteRecord(record);
        if (_records)
            _records(records);
    }
}

void RunnerSession::_noteRecord(const DXRCycleRecord& record)
{
    _statistics.note(record);
    _contextDevice = record.event == Event::ContextStopped ? kAudioObjectUnknown : record.deviceID;
    _isAggregate = record.context == Context::Aggregate && _contextDevice != kAudioObjectUnknown;
    _hasFailed = record.event == Event::ContextFailed;
    if (record.event == Event::Cycle) {
        if (std::exchange(_isHanging, false))
            _report(formatText("Cycles are back after %.1f s", seconds() - _lastCycleAt));
        _lastCycleAt = seconds();
    } else if (_hasFailed && _frameCount != 0) {
        _report("The devices do not start; waiting until something changes");
    } else if (record.event == Event::ContextStarted) {
        for (SessionDevice& device : _devices)
            device.forgetStatus();
    }
}

void RunnerSession::_updateDevices()
{
    for (SessionDevice& device : _devices) {
        const double away = device.secondsAway();
        const SessionDevice::Change change = device.update(seconds());
        if (change == SessionDevice::Change::None)
            continue;
        const bool areOthersConnected = std::ranges::any_of(_devices, &SessionDevice::isConnected);
        if (change == SessionDevice::Change::Gone)
            _report(device.name() + (areOthersConnected ? " is gone; the others go on"
                                                        : " is gone; time goes on without a device"));
        else if (change == SessionDevice::Change::Back)
            _report(device.name() + formatText(" is back after %.1f s", device.secondsAway() - away));
        else
            _report(device.name() + " was gone for a moment");
    }
}

void RunnerSession::_updateDefaults()
{
    if (_defaults.empty() || !_runner)
        return;
    for (const CXRef<DXRDevice>& device : _runner->devices()) {
        const HALDirection direction = device->isInput() ? HALDirection::Input : HALDirection::Output;
        const auto followed = _defaults.find(direction);
        if (followed == _defaults.end() || followed->second == device || _chosen.contains(device))
            continue;
        followed->second = device;
        const std::optional<DeviceReport> report = DeviceReport::read(device->deviceID());
        if (!report)
            continue; // the device has already disconnected
        _report(formatText("The default %s is now ", nameOf(direction)) + report->shortName());
        if (std::ranges::find(_devices, report->uid, &SessionDevice::uid) == _devices.end())
            _devices.emplace_back(DeviceSelection::of(*report, direction));
    }
}

/// Reads the frames lost by sub-devices of the runner's aggregate, which its cycles do not show.
void RunnerSession::_readSubDevices()
{
    if (!_isAggregate)
        return;
    for (const AudioAggregateSubDeviceStatus& status : subDeviceStatus(_contextDevice))
        for (SessionDevice& device : _devices)
            if (device.isConnected() && device.deviceID() == status.deviceID && device.noteStatus(status))
                _statistics.disturb();
}

std::string RunnerSession::contextText() const
{
    size_t count = 0;
    std::string alone, clock;
    for (const SessionDevice& device : _devices) {
        count += device.isConnected();
        alone = device.isConnected() ? device.name() : alone;
        clock = device.isClock() ? ", by the clock of " + device.name() : clock;
    }
    if (_contextDevice == kAudioObjectUnknown || count == 0)
        return "no device: a timer keeps the time";
    return count > 1 ? formatText("%zu devices as one", count) + clock : alone + " alone";
}

void RunnerSession::_detectHang()
{
    constexpr double patienceSeconds = 5.0;
    if (_isHanging || _hasFailed || seconds() - _lastCycleAt < patienceSeconds)
        return;
    _isHanging = true;
    _report(formatText("No cycles for %.0f s: waiting for ", patienceSeconds) + _names());
}

void RunnerSession::_settle()
{
    constexpr double patienceSeconds = 3.0;
    if (_isCounting || _frameCount == 0 ||
        (!_statistics.isSettled(_sampleRate) && seconds() < patienceSeconds))
        return;
    beginCounting();
    if (_settled)
        _settled();
}

// ---- Messages

std::vector<std::string> RunnerSession::report() const
{
    const CycleStatistics& all = _statistics;
    std::vector<std::string> lines{
        formatCount(all.cycles, "cycle") + formatText(" of %u frames: ", all.cycleFrames) +
            formatCount(all.gaps, "gap") + " (" + formatCount(all.lostFrames, "frame") + " lost), " +
            formatCount(all.lateCycles, "late cycle") + " (" + formatNumber(all.lateByUs) + " by us)",
        formatText("latest cycle %.2f ms after it was due, longest run %.2f ms",
                   1e3 * secondsOf(all.largestLateness), 1e3 * secondsOf(all.longestRun))};
    if (all.restarts > 0 || all.timerFrames > 0)
        lines.push_back(formatCount(all.restarts, "restart") + ", " +
                        formatFrames(all.timerFrames, _sampleRate) + " without any device");
    if (all.missingRecords() > 0)
        lines.push_back(formatCount(all.missingRecords(), "cycle") + " not seen: the trace was full");
    for (const SessionDevice& device : _devices)
        lines.push_back(_reportOf(device));
    return lines;
}

std::string RunnerSession::_reportOf(const SessionDevice& device) const
{
    std::string line = device.name() + ": " + formatCount(device.overloads(), "overload");
    if (!device.clockText().empty())
        line += ", " + formatCount(device.resynchronisations(), "resynchronisation") + " (" +
                formatCount(device.lostFrames(), "frame") + " lost), " + device.clockText();
    if (!device.isConnected())
        return line + ", gone";
    return line + (device.secondsAway() > 0.0 ? formatText(", away for %.1f s", device.secondsAway()) : "");
}
