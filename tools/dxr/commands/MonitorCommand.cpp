#include "Commands.h"

#include "DeviceWatch.h"
#include "LoopPatch.h"
#include "MonitorView.h"
#include "RunnerOptions.h"
#include "SimulatedVisitor.h"
#include "TerminalScreen.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <dxr/HostClock.h>
#include <dxr/LogSink.h>
#include <dxr/MainQueue.h>
#include <mutex>
#include <poll.h>

namespace {

constexpr size_t maxMessages = 200;
constexpr std::chrono::milliseconds visitorsPause(1500); // for people to see

/// Takes the library's log lines while the terminal shows something else.
/// Threads: any.
class LogLines {
public:
    LogLines()
    {
        dxr::LogSink::setWriter([kept = _kept](std::string_view line) {
            const std::scoped_lock lock(kept->mutex);
            kept->lines.emplace_back(line.substr(0, line.find('\n')));
        });
    }
    ~LogLines() { dxr::LogSink::setWriter({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::vector<std::string> take()
    {
        const std::scoped_lock lock(_kept->mutex);
        return std::exchange(_kept->lines, {});
    }

private:
    struct Kept {
        std::mutex mutex;
        std::vector<std::string> lines; // under the mutex
    };
    const std::shared_ptr<Kept> _kept = std::make_shared<Kept>(); // with the writer, which may be under way
};

/// The monitor of what was named, or of the default devices, also when these change.
class Monitor {
public:
    Monitor(const RunnerOptions& options, const CXRef<SimulatedHardware>& simulated);

    void run();

private:
    bool _wait();
    void _open();
    void _start();
    std::array<std::vector<DeviceSelection>, 2> _selectDefaults() const;
    void _noteCycles(std::span<const DXRCycleRecord> records);
    void _handleKeys(const std::string& keys);
    void _follow();
    void _note(const std::string& what);
    MonitorState _state();
    MonitorState::Device _stateOf(const DeviceSelection& selection, size_t meter);

    const RunnerOptions& _options;
    const Interrupts _interrupts;
    LogLines _log;
    DeviceWatch _watch{false};
    const std::unique_ptr<SimulatedVisitor> _visitor; // none on real hardware
    TerminalScreen _screen;
    const Terminal _terminal;

    std::array<std::vector<DeviceSelection>, 2> _selections; // inputs, outputs
    CXRef<LoopPatch> _patch;
    std::unique_ptr<RunnerSession> _session; // none while the default devices do not start
    std::vector<double> _levels;             // of the meters, as shown
    std::vector<DeviceReport> _reports;      // of all devices there are
    std::deque<std::string> _messages;
    double _usedSeconds = 0.0, _longestSeconds = 0.0, _cycleSeconds = 0.0;
    const uint64_t _begunTicks = dxr::HostClock::nowTicks();
    bool _isCounting = false, _isHeard = false, _isOver = false;
};

Monitor::Monitor(const RunnerOptions& options, const CXRef<SimulatedHardware>& simulated)
    : _options(options),
      _visitor(simulated ? std::make_unique<SimulatedVisitor>(simulated, visitorsPause) : nullptr)
{
    _watch.begin();
    _reports = DeviceReport::readAll(DeviceReport::Hidden::No);
}

void Monitor::run()
{
    _open();
    while (!_isOver) {
        if (_session)
            _session->poll();
        _follow();
        if (_session && !_isCounting && _session->isSettled()) {
            _session->beginCounting();
            _isCounting = true;
        }
        const TerminalScreen::Size size = _screen.size();
        const size_t columns =
            size.columns - (size.columns > 1); // some terminals begin a new line after the last column
        _screen.draw(monitorLines(_state(), columns, size.rows, _terminal));
        _isOver = !_wait();
    }
}

/// False when the user ends it.
bool Monitor::_wait()
{
    constexpr int tickMilliseconds = 100;
    pollfd waited[] = {{_interrupts.fd(), POLLIN, 0},
                       {_screen.keyboard(), POLLIN, 0},
                       {_watch.fd(), POLLIN, 0},
                       {dxr::MainQueue::shared().fd(), POLLIN, 0}};
    poll(waited, std::size(waited), tickMilliseconds); // a new size of the terminal interrupts it
    if ((waited[1].revents & (POLLERR | POLLHUP)) != 0)
        return false; // the terminal is gone
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

/// Begins to watch what was named, or what the default devices are now.
void Monitor::_open()
{
    _selections =
        _options.namesDevices() ? std::array{_options.inputs(), _options.outputs()} : _selectDefaults();
    _session = nullptr;
    _isCounting = false;
    try {
        _start();
    } catch (const ToolFailure& failure) {
        _session = nullptr;
        if (_options.namesDevices())
            throw;
        _note(failure.what());
    }
}

void Monitor::_start()
{
    _session = std::make_unique<RunnerSession>(_interrupts, _options.frameCount(), _options.sampleRate());
    _patch = LoopPatch::initWithSelections(_selections[0], _selections[1]);
    _patch->setOpen(_isHeard);
    _patch->addTo(*_session);
    _session->setRecords([this](std::span<const DXRCycleRecord> records) { _noteCycles(records); });
    _levels.assign(_selections[0].size() + _selections[1].size(), 0.0);
    _isOver = !_session->start();
}

std::array<std::vector<DeviceSelection>, 2> Monitor::_selectDefaults() const
{
    std::array<std::vector<DeviceSelection>, 2> selections;
    for (const DeviceReport& report : _reports)
        for (const HALDirection direction : halDirections)
            if (report[direction].isDefault && report[direction].device)
                selections[static_cast<size_t>(direction)].push_back(DeviceSelection::of(report, direction));
    return selections;
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
        if (_isCounting)
            _longestSeconds = std::max(_longestSeconds, used);
    }
}

/// Reads what has happened to the devices.
void Monitor::_follow()
{
    using enum DeviceWatch::Kind;
    bool hasNewDefault = false;
    const std::vector<DeviceWatch::Event> events = _watch.next();
    for (const DeviceWatch::Event& event : events) {
        const bool isOurs = event.device.isOfRunner();
        const bool isOfCycles =
            event.kind == Changed && (event.what == "running" || event.what == "buffer_frames");
        const bool isSame = event.kind == Default && event.what == "system output"; // mostly the output's
        if (!isOurs && !isOfCycles && !isSame)
            _note(event.text());
        hasNewDefault = hasNewDefault || event.kind == Default;
    }
    if (!events.empty())
        _reports = DeviceReport::readAll(DeviceReport::Hidden::No);
    if (_session)
        for (const std::string& message : _session->takeMessages())
            if (message.find("Cycles") != std::string::npos || message.find("No cycles") != std::string::npos)
                _note(message.substr(message.find("  ") + 2));
    for (const std::string& line : _log.take())
        _note(line);
    if (hasNewDefault && !_options.namesDevices())
        _open();
}

void Monitor::_note(const std::string& what)
{
    const double seconds = secondsOf(dxr::HostClock::nowTicks() - _begunTicks);
    _messages.push_back(formatText("%8s  ", formatSeconds(seconds).c_str()) + what);
    if (_messages.size() > maxMessages)
        _messages.pop_front();
}

MonitorState::Device Monitor::_stateOf(const DeviceSelection& selection, size_t meter)
{
    constexpr double fall = 0.8; // of a picture
    const bool isInput = meter < _selections[0].size();
    MonitorState::Device device;
    device.direction = isInput ? "in" : "out";
    device.name = selection.device->displayName();
    device.sampleRate = selection.device->sampleRate();
    const auto status = std::ranges::find(_session->devices(), selection.report.uid, &SessionDevice::uid);
    if (status != _session->devices().end()) {
        device.isConnected = status->isConnected();
        device.clock = status->isClock() ? "leads" : device.isConnected ? status->clockText() : "";
        device.lostFrames = status->lostFrames();
    }
    device.state = device.isConnected ? "runs" : "gone";
    float peak = 0.0F;
    for (const float each : _patch->meters().takePeaks(meter))
        peak = std::max(peak, each);
    _levels[meter] = std::max(double{peak}, _levels[meter] * fall);
    device.level = static_cast<float>(_levels[meter] < 1e-5 ? 0.0 : _levels[meter]);
    return device;
}

MonitorState Monitor::_state()
{
    constexpr double fall = 0.9; // of a picture
    MonitorState state;
    state.seconds = secondsOf(dxr::HostClock::nowTicks() - _begunTicks);
    state.context = _session ? _session->contextText() : "nothing runs";
    state.messages = _messages;
    state.keys =
        _isHeard ? "q quits   l silences the outputs" : "q quits   l plays the inputs on the outputs";
    for (const DeviceReport& report : _reports) {
        const bool isWatched =
            std::ranges::any_of(_selections, [&](const std::vector<DeviceSelection>& each) {
                return std::ranges::any_of(
                    each, [&](const DeviceSelection& one) { return one.report.uid == report.uid; });
            });
        if (!isWatched && !report.isOfRunner())
            state.others.push_back({report.shortName(), report[HALDirection::Input].channelCount,
                                    report[HALDirection::Output].channelCount, report.sampleRate});
    }
    if (!_session)
        return state;
    const CycleStatistics& cycles = _session->statistics();
    state.sampleRate = _session->sampleRate();
    state.frameCount = _session->frameCount();
    state.usedSeconds = _usedSeconds;
    state.longestSeconds = _longestSeconds;
    state.cycleSeconds = _cycleSeconds;
    _usedSeconds *= fall;
    state.cycles = cycles.cycles();
    state.gaps = cycles.gaps();
    state.lateCycles = _session->counts().lateCycles;
    state.lostFrames = _session->counts().lostFrames;
    state.restarts = _session->counts().restarts;
    state.timerSeconds = static_cast<double>(cycles.timerFrames()) / std::max(_session->sampleRate(), 1.0);
    size_t meter = 0;
    for (const std::vector<DeviceSelection>& direction : _selections)
        for (const DeviceSelection& selection : direction)
            state.devices.push_back(_stateOf(selection, meter++));
    return state;
}

} // namespace

void registerMonitorCommand(CLI::App& app)
{
    CLI::App* command =
        app.add_subcommand("monitor", "Show devices, levels, cycles and clocks on the whole terminal");
    const auto options = std::make_shared<RunnerOptions>(
        *command,
        "It runs the devices that are named, or the default ones, also when these change. The outputs are "
        "silent until the key l plays the inputs on them; q ends it.");
    options->addInputs("A device to hear");
    options->addOutputs("A device to run");
    command->callback([options] {
        const CXRef<SimulatedHardware> simulated = options->find();
        Monitor(*options, simulated).run();
    });
}
