#include "Commands.h"

#include "DeviceWatch.h"
#include "LoopPatch.h"
#include "MonitorView.h"
#include "RunnerOptions.h"
#include "TerminalScreen.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <dxr/HostClock.h>
#include <dxr/LogSink.h>
#include <poll.h>

namespace {

constexpr size_t maxMessages = 200;
constexpr std::chrono::milliseconds visitorsPause(1500); // slow enough to watch

/// Runs the devices and draws their state until the user ends it.
class Monitor {
public:
    explicit Monitor(RunnerOptions& options);
    ~Monitor() { dxr::LogSink::setWriter({}); }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    void run();

private:
    bool _wait();
    void _open();
    void _start();
    void _noteCycles(std::span<const DXRCycleRecord> records);
    void _handleKeys(const std::string& keys);
    void _readEvents();
    void _print(const std::string& message);
    bool _isUsed(const DeviceReport& report) const;
    MonitorState _state();
    void _readSession(MonitorState& state);
    MonitorState::Device _stateOf(const DeviceSelection& selection, size_t meter);

    RunnerOptions& _options;
    const Interrupts _interrupts;
    DeviceWatch _watch{false};
    const std::unique_ptr<SimulatedVisitor> _visitor; // null on real hardware
    TerminalScreen _screen;
    const Terminal _terminal;

    CXRef<LoopPatch> _patch;
    std::unique_ptr<RunnerSession> _session; // null while the default devices do not start
    std::vector<double> _levels;             // of the meters, as drawn
    std::vector<DeviceReport> _reports;      // of all devices
    std::deque<std::string> _messages;
    // The library's log, which would spoil the picture. Written on the main thread.
    const std::shared_ptr<std::vector<std::string>> _logLines = std::make_shared<std::vector<std::string>>();
    double _usedSeconds = 0.0, _longestSeconds = 0.0, _cycleSeconds = 0.0;
    const uint64_t _startTicks = dxr::HostClock::nowTicks();
    bool _isHeard = false, _isOver = false;
};

Monitor::Monitor(RunnerOptions& options) : _options(options), _visitor(options.visitor(visitorsPause))
{
    dxr::LogSink::setWriter([lines = _logLines](std::string_view line) {
        dxr::MainQueue::shared().async(
            [lines, text = std::string(line.substr(0, line.find('\n')))] { lines->push_back(text); });
    });
    _watch.begin();
    _reports = DeviceReport::readAll(DeviceReport::Hidden::No);
}

void Monitor::run()
{
    _open();
    while (!_isOver) {
        if (_session)
            _session->poll();
        _readEvents();
        const TerminalScreen::Size size = _screen.size();
        const size_t columns =
            size.columns - (size.columns > 1); // in the last one, some terminals start a new line
        _screen.draw(monitorLines(_state(), columns, size.rows, _terminal));
        _isOver = !_wait();
    }
}

/// False when the user ends it.
bool Monitor::_wait()
{
    constexpr int tickMilliseconds = 100;
    pollfd waited[] = {
        {_interrupts.fd(), POLLIN, 0}, {_screen.keyboard(), POLLIN, 0}, {DeviceWatch::fd(), POLLIN, 0}};
    poll(waited, std::size(waited), tickMilliseconds); // interrupted when the terminal is resized
    if ((waited[1].revents & (POLLERR | POLLHUP)) != 0)
        return false; // the terminal was closed
    if (waited[1].revents != 0)
        _handleKeys(_screen.takeKeys());
    return !_interrupts.wasAsked() && !_isOver;
}

void Monitor::_handleKeys(const std::string& keys)
{
    for (const char key : keys) {
        if (key == 'q' || key == 'Q')
            _isOver = true;
        if (key != 'l' && key != 'L')
            continue;
        _isHeard = !_isHeard;
        if (_patch)
            _patch->setOpen(_isHeard);
    }
}

/// Runs the named devices, or the present default ones.
void Monitor::_open()
{
    if (!_options.namesDevices())
        _options.takeDefaults();
    _session = nullptr;
    try {
        _start();
    } catch (const ToolFailure& failure) {
        _session = nullptr;
        if (_options.namesDevices())
            throw;
        _print(failure.what());
    }
}

void Monitor::_start()
{
    _session = std::make_unique<RunnerSession>(_interrupts, _options.frameCount(), _options.sampleRate());
    _patch = LoopPatch::initWithSelections(_options.inputs(), _options.outputs());
    _patch->setOpen(_isHeard);
    _patch->addTo(*_session);
    _session->setRecords([this](std::span<const DXRCycleRecord> records) { _noteCycles(records); });
    _levels.assign(_options.inputs().size() + _options.outputs().size(), 0.0);
    _isOver = !_session->start();
}

void Monitor::_noteCycles(std::span<const DXRCycleRecord> records)
{
    for (const DXRCycleRecord& record : records) {
        if (record.event != DXRCycleRecord::Event::Cycle || record.dueTicks == 0 ||
            record.deadlineTicks <= record.dueTicks)
            continue;
        const double used = secondsOf(record.endTicks - std::min(record.endTicks, record.dueTicks));
        _usedSeconds = std::max(_usedSeconds, used);
        _cycleSeconds = secondsOf(record.deadlineTicks - record.dueTicks);
        if (_session->isCounting())
            _longestSeconds = std::max(_longestSeconds, used);
    }
}

/// Turns events of devices, of the session and of the library into messages.
void Monitor::_readEvents()
{
    using enum DeviceWatch::Kind;
    bool hasNewDefault = false;
    const std::vector<DeviceWatch::Event> events = _watch.next();
    for (const DeviceWatch::Event& event : events) {
        const bool isOfCycles =
            event.kind == Changed && (event.what == "running" || event.what == "buffer_frames");
        const bool isOfSounds = event.kind == Default && event.what == "system output"; // usually the output
        if (!event.device.isOfRunner() && !isOfCycles && !isOfSounds)
            _print(event.text());
        hasNewDefault = hasNewDefault || event.kind == Default;
    }
    if (!events.empty())
        _reports = DeviceReport::readAll(DeviceReport::Hidden::No);
    if (_session)
        for (const std::string& message : _session->takeMessages())
            if (message.find("Cycles") != std::string::npos || message.find("No cycles") != std::string::npos)
                _print(message.substr(message.find("  ") + 2));
    for (const std::string& line : std::exchange(*_logLines, {}))
        _print(line);
    if (hasNewDefault && !_options.namesDevices())
        _open();
}

void Monitor::_print(const std::string& message)
{
    const double seconds = secondsOf(dxr::HostClock::nowTicks() - _startTicks);
    _messages.push_back(formatText("%8s  ", formatSeconds(seconds).c_str()) + message);
    if (_messages.size() > maxMessages)
        _messages.pop_front();
}

bool Monitor::_isUsed(const DeviceReport& report) const
{
    const auto isThis = [&](const DeviceSelection& selection) { return selection.report.uid == report.uid; };
    return report.isOfRunner() || std::ranges::any_of(_options.inputs(), isThis) ||
           std::ranges::any_of(_options.outputs(), isThis);
}

MonitorState Monitor::_state()
{
    MonitorState state;
    state.seconds = secondsOf(dxr::HostClock::nowTicks() - _startTicks);
    state.context = _session ? _session->contextText() : "nothing runs";
    state.messages = _messages;
    state.keys =
        _isHeard ? "q quits   l silences the outputs" : "q quits   l plays the inputs on the outputs";
    for (const DeviceReport& report : _reports)
        if (!_isUsed(report))
            state.others.push_back({report.shortName(), report[HALDirection::Input].channelCount,
                                    report[HALDirection::Output].channelCount, report.sampleRate});
    if (_session)
        _readSession(state);
    return state;
}

void Monitor::_readSession(MonitorState& state)
{
    constexpr double fall = 0.9; // from picture to picture
    const CycleStatistics& cycles = _session->statistics();
    state.sampleRate = _session->sampleRate();
    state.frameCount = _session->frameCount();
    state.usedSeconds = std::exchange(_usedSeconds, _usedSeconds * fall);
    state.longestSeconds = _longestSeconds;
    state.cycleSeconds = _cycleSeconds;
    state.cycles = cycles.cycles();
    state.gaps = cycles.gaps();
    state.lateCycles = cycles.lateCycles();
    state.lostFrames = _session->lostFrames();
    state.restarts = cycles.restarts();
    state.timerSeconds = static_cast<double>(cycles.timerFrames()) / std::max(_session->sampleRate(), 1.0);
    for (const auto* selections : {&_options.inputs(), &_options.outputs()})
        for (const DeviceSelection& selection : *selections)
            state.devices.push_back(_stateOf(selection, state.devices.size()));
}

MonitorState::Device Monitor::_stateOf(const DeviceSelection& selection, size_t meter)
{
    constexpr double fall = 0.8; // from picture to picture
    MonitorState::Device device;
    device.direction = selection.device->isInput() ? "in" : "out";
    device.name = selection.device->displayName();
    device.sampleRate = selection.device->sampleRate();
    const auto status = std::ranges::find(_session->devices(), selection.report.uid, &SessionDevice::uid);
    if (status != _session->devices().end()) {
        device.isConnected = status->isConnected();
        device.clock = status->isClock() ? "leads" : device.isConnected ? status->clockText() : "";
        device.lostFrames = status->lostFrames();
    }
    const std::vector<float> peaks = _patch->meters().takePeaks(meter);
    const double peak = peaks.empty() ? 0.0 : double{*std::ranges::max_element(peaks)};
    _levels[meter] = std::max(peak, _levels[meter] * fall);
    device.level = static_cast<float>(_levels[meter] < 1e-5 ? 0.0 : _levels[meter]);
    return device;
}

void runMonitor(RunnerOptions& options)
{
    options.find();
    Monitor(options).run();
}

} // namespace

void registerMonitorCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(
        app, "monitor", "Show devices, levels, cycles and clocks on the whole terminal", runMonitor);
    options.setAbout(
        "Runs the named devices, by default the default ones, also when these change. The outputs are silent "
        "until the key l plays the inputs on them; q ends it.");
    options.addInputs("A device to record");
    options.addOutputs("A device to run");
}
