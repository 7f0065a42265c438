#include "RunnerSession.h"

#include "DeviceProperties.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
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

RunnerSession::~RunnerSession()
{
    _records = nullptr; // may have thrown, and would again
    stop();
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
        _runner = nullptr; // the thread that is still starting it has it now
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

double RunnerSession::seconds() const
{
    return std::chrono::duration<double>(Clock::now() - _started).count();
}

// ---- What has happened

void RunnerSession::poll()
{
    dxr::MainQueue::shared().drain();
    _readTrace();
    _readCounts();
    _updateDefaults();
    _updateDevices();
    _readSubDevices();
    _detectHang();
}

void RunnerSession::_readTrace()
{
    while (const size_t count = _trace->read(_batch)) {
        const std::span<const DXRCycleRecord> records(_batch.data(), count);
        for (const DXRCycleRecord& record : records) {
            _statistics.note(record);
            _contextDevice = record.event == Event::ContextStopped ? kAudioObjectUnknown : record.deviceID;
            _isAggregate = record.context == Context::Aggregate && _contextDevice != kAudioObjectUnknown;
            if (record.event == Event::Cycle) {
                if (std::exchange(_isHanging, false))
                    _report(formatText("Cycles are back after %.1f s", seconds() - _lastCycleAt));
                _lastCycleAt = seconds();
            } else if (record.event == Event::ContextFailed && _frameCount != 0) {
                _report("The devices do not start; waiting until something changes");
            }
            _hasFailed = record.event == Event::ContextFailed;
            if (record.event == Event::ContextStarted)
                for (SessionDevice& device : _devices)
                    device.forgetStatus();
        }
        if (_records)
            _records(records);
    }
}

void RunnerSession::_readCounts()
{
    if (!_runner)
        return;
    const DXRRunnerCounts now = _runner->counts();
    if (now.restarts != _lastCounts.restarts)
        _lostBefore += _lastCounts.lostFrames();
    _lastCounts = now;
    _counts = {now.lateCycles - _countsBefore.lateCycles,
               _lostBefore + now.lostFrames() - _countsBefore.lostFrames(),
               now.restarts - _countsBefore.restarts};
}

std::optional<double> RunnerSession::roundTripSeconds() const
{
    const std::vector<DXRDeviceLatency> all =
        _runner ? _runner->latencies() : std::vector<DXRDeviceLatency>();
    const auto input = std::ranges::find(all, true, &DXRDeviceLatency::isInput);
    const auto output = std::ranges::find(all, false, &DXRDeviceLatency::isInput);
    if (input == all.end() || output == all.end())
        return std::nullopt;
    return input->seconds() + output->seconds();
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

/// A default device that is followed has become another one.
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
            continue; // it is gone already
        _report(formatText("The default %s is now ", nameOf(direction)) + report->shortName());
        if (std::ranges::find(_devices, report->uid, &SessionDevice::uid) == _devices.end())
            _devices.emplace_back(DeviceSelection::of(*report, direction));
    }
}

/// The parts of the aggregate that the runner has made: they have jumps that its own cycles do not show.
void RunnerSession::_readSubDevices()
{
    if (!_isAggregate)
        return;
    for (const auto& status : readList<AudioAggregateSubDeviceStatus>(
             _contextDevice, addressOf(kAudioAggregateDevicePropertySubDeviceStatus)))
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

bool RunnerSession::isSettled() const
{
    constexpr double patienceSeconds = 3.0;
    return _statistics.isSettled(_sampleRate) || seconds() >= patienceSeconds;
}

void RunnerSession::beginCounting()
{
    _statistics.beginCounting();
    _readCounts();
    _countsBefore = _lastCounts;
    _lostBefore = 0;
    _counts = {};
    for (SessionDevice& device : _devices)
        device.beginCounting();
}

// ---- Messages

void RunnerSession::_report(const std::string& what)
{
    _messages.push_back(formatSeconds(seconds()) + "  " + what);
}

std::string RunnerSession::_names() const
{
    std::string names;
    for (const SessionDevice& device : _devices)
        names += (names.empty() ? "" : ", ") + device.name();
    return names;
}

std::vector<std::string> RunnerSession::report() const
{
    const CycleStatistics& all = _statistics;
    std::vector<std::string> lines;
    lines.push_back(
        formatCount(all.cycles(), "cycle", "cycles") + formatText(" of %u frames: ", all.cycleFrames()) +
        formatCount(all.gaps(), "gap", "gaps") + " (" + formatCount(all.lostFrames(), "frame", "frames") +
        " lost), " + formatCount(all.lateCycles(), "late cycle", "late cycles") + " (" +
        formatCount(all.lateByUs(), "", "") + "by us)");
    lines.push_back(formatText("latest cycle %.2f ms after it was due, longest run %.2f ms",
                               1e3 * secondsOf(all.largestLateness()), 1e3 * secondsOf(all.longestRun())));
    if (all.restarts() > 0 || all.timerCycles() > 0)
        lines.push_back(formatCount(all.restarts(), "restart", "restarts") + ", " +
                        formatSeconds(static_cast<double>(all.timerFrames()) / _sampleRate) +
                        " without any device");
    if (all.missingRecords() > 0)
        lines.push_back(formatCount(all.missingRecords(), "cycle was", "cycles were") +
                        " not seen, being too many");
    for (const SessionDevice& device : _devices)
        lines.push_back(_reportOf(device));
    return lines;
}

std::string RunnerSession::_reportOf(const SessionDevice& device) const
{
    std::string line = device.name() + ": " + formatCount(device.overloads(), "overload", "overloads");
    if (!device.clockText().empty())
        line += ", " + formatCount(device.resynchronisations(), "resynchronisation", "resynchronisations") +
                " (" + formatCount(device.lostFrames(), "frame", "frames") + " lost), " + device.clockText();
    if (!device.isConnected())
        return line + ", gone";
    return line + (device.secondsAway() > 0.0 ? formatText(", away for %.1f s", device.secondsAway()) : "");
}
