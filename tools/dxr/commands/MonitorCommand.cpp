#include "Commands.h"

#include "DeviceWatch.h"
#include "LoopPatch.h"
#include "MonitorView.h"
#include "RunnerOptions.h"
#include "TerminalScreen.h"

#include <dxr/HostClock.h>
#include <dxr/LogSink.h>
#include <poll.h>

namespace {

class Monitor {
public:
    explicit Monitor(RunnerOptions& options);
    ~Monitor() { dxr::LogSink::setWriter({}); }

    void run();

private:
    void _wait();
    void _open();
    void _noteCycles(std::span<const DXRCycleRecord> records);
    void _handleKeys(const std::string& keys);
    void _readEvents();
    void _readOthers();
    void _print(const std::string& message);
    void _readSession();
    MonitorState::Device _stateOf(const DeviceSelection& selection) const;

    RunnerOptions& _options;
    const Interrupts _interrupts;
    DeviceWatch _watch{false};
    const std::jthread _visitor;
    TerminalScreen _screen;
    const Terminal _terminal;

    CXRef<LoopPatch> _patch;
    std::unique_ptr<RunnerSession> _session; // null while the default devices do not start
    MonitorState _state;
    // The library's log, which would overwrite the picture on standard error. Used on the main thread.
    const std::shared_ptr<std::vector<std::string>> _logLines = std::make_shared<std::vector<std::string>>();
    const uint64_t _startTicks = dxr::HostClock::nowTicks();
    bool _isOver = false;
};

Monitor::Monitor(RunnerOptions& options)
    : _options(options), _visitor(options.visitor(std::chrono::milliseconds(1500))) // slow enough to watch
{
    dxr::LogSink::setWriter([lines = _logLines](std::string_view line) {
        dxr::MainQueue::shared().async(
            [lines, text = std::string(line.substr(0, line.find('\n')))] { lines->push_back(text); });
    });
    _watch.begin();
}

void Monitor::run()
{
    constexpr double fall = 0.9; // factor by which usedSeconds falls with each picture
    _open();
    _readOthers();
    while (!_isOver) {
        if (_session)
            _session->poll();
        _readEvents();
        if (_session)
            _readSession();
        _state.seconds = secondsOf(dxr::HostClock::nowTicks() - _startTicks);
        const winsize size = _screen.size();
        // After the last column, some terminals start a new line.
        const size_t columns = size.ws_col > 1 ? size.ws_col - 1U : 1U;
        _screen.draw(monitorLines(_state, columns, size.ws_row, _terminal));
        _state.usedSeconds *= fall;
        _wait();
    }
}

void Monitor::_wait()
{
    constexpr int tickMilliseconds = 100;
    pollfd waited[] = {
        {_interrupts.fd(), POLLIN, 0}, {_screen.keyboard(), POLLIN, 0}, {DeviceWatch::fd(), POLLIN, 0}};
    poll(waited, std::size(waited), tickMilliseconds); // SIGWINCH interrupts it when the terminal is resized
    const bool isTerminalClosed = (waited[1].revents & (POLLERR | POLLHUP)) != 0;
    if (waited[1].revents != 0 && !isTerminalClosed)
        _handleKeys(_screen.takeKeys());
    _isOver = _isOver || isTerminalClosed || _interrupts.wasAsked();
}

void Monitor::_handleKeys(const std::string& keys)
{
    for (const char key : keys) {
        if (key == 'q' || key == 'Q')
            _isOver = true;
        if (key != 'l' && key != 'L')
            continue;
        _state.isHeard = !_state.isHeard;
        if (_patch)
            _patch->setOpen(_state.isHeard);
    }
}

/// Runs the named devices or, if none was named, the current default devices.
void Monitor::_open()
{
    if (!_options.namesDevices())
        _options.takeDefaults();
    _session = nullptr;
    _state = {.context = "nothing runs",
              .others = std::move(_state.others),
              .messages = std::move(_state.messages),
              .isHeard = _state.isHeard};
    try {
        _session = std::make_unique<RunnerSession>(_interrupts, _options.frameCount(), _options.sampleRate());
        _patch = LoopPatch::initWithSelections(_options.inputs(), _options.outputs());
        _patch->setOpen(_state.isHeard);
        _patch->addTo(*_session);
        _session->setRecords([this](std::span<const DXRCycleRecord> records) { _noteCycles(records); });
        _isOver = !_session->start();
    } catch (const ToolFailure& failure) {
        _session = nullptr;
        if (_options.namesDevices())
            throw;
        _print(failure.what());
    }
}

void Monitor::_noteCycles(std::span<const DXRCycleRecord> records)
{
    for (const DXRCycleRecord& record : records) {
        if (record.event != DXRCycleRecord::Event::Cycle || record.dueTicks == 0 ||
            record.deadlineTicks <= record.dueTicks)
            continue;
        const double used = secondsOf(record.endTicks - std::min(record.endTicks, record.dueTicks));
        _state.usedSeconds = std::max(_state.usedSeconds, used);
        _state.cycleSeconds = secondsOf(record.deadlineTicks - record.dueTicks);
        if (_session->isCounting())
            _state.longestSeconds = std::max(_state.longestSeconds, used);
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
    if (_session)
        for (const std::string& message : _session->takeMessages())
            if (message.find("Cycles") != std::string::npos || message.find("No cycles") != std::string::npos)
                _print(message.substr(message.find("  ") + 2));
    for (const std::string& line : std::exchange(*_logLines, {}))
        _print(line);
    if (hasNewDefault && !_options.namesDevices())
        _open();
    if (!events.empty())
        _readOthers();
}

void Monitor::_readOthers()
{
    _state.others = DeviceReport::readAll(DeviceReport::Hidden::No);
    std::erase_if(_state.others, [&](const DeviceReport& report) {
        const auto isThis = [&](const DeviceSelection& used) { return used.report.uid == report.uid; };
        // Looking up a device by its name makes hidden devices known to the manager: leave them out.
        return report.isHidden || report.isOfRunner() || std::ranges::any_of(_options.inputs(), isThis) ||
               std::ranges::any_of(_options.outputs(), isThis);
    });
}

void Monitor::_print(const std::string& message)
{
    constexpr size_t maxMessages = 200;
    const double seconds = secondsOf(dxr::HostClock::nowTicks() - _startTicks);
    _state.messages.push_back(formatText("%8s  ", formatSeconds(seconds).c_str()) + message);
    if (_state.messages.size() > maxMessages)
        _state.messages.pop_front();
}

void Monitor::_readSession()
{
    _state.sampleRate = _session->sampleRate();
    _state.frameCount = _session->frameCount();
    _state.context = _session->contextText();
    _state.cycles = _session->statistics();
    _state.lostFrames = _session->lostFrames();
    _state.devices.clear();
    _patch->meters().update();
    for (const auto* selections : {&_options.inputs(), &_options.outputs()})
        for (const DeviceSelection& selection : *selections)
            _state.devices.push_back(_stateOf(selection));
}

/// The state of the next device in _state.devices; the meters have the same order.
MonitorState::Device Monitor::_stateOf(const DeviceSelection& selection) const
{
    MonitorState::Device device;
    device.direction = selection.device->isInput() ? "in" : "out";
    device.name = selection.device->displayName();
    device.sampleRate = selection.device->sampleRate();
    device.level = _patch->meters().level(_state.devices.size());
    const auto status = std::ranges::find(_session->devices(), selection.report.uid, &SessionDevice::uid);
    if (status != _session->devices().end()) {
        device.isConnected = status->isConnected();
        device.clock = status->isClock() ? "leads" : device.isConnected ? status->clockText() : "";
        device.lostFrames = status->lostFrames();
    }
    return device;
}

} // namespace

void registerMonitorCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(
        app, "monitor", "Show devices, levels, cycles and clocks on the whole terminal",
        +[](RunnerOptions& found) {
            found.find();
            Monitor(found).run();
        });
    options.setAbout(
        "Runs the named devices, or else the default devices, even as these change. The outputs are silent "
        "until the key l plays the inputs on them; q ends it.");
    options.addInputs("A device to record");
    options.addOutputs("A device to run");
}
