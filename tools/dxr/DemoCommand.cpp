#include "DemoCommand.h"

#include "DemoClaim.h"
#include "DemoEngine.h"
#include "DemoPicture.h"
#include "DemoScript.h"
#include "DeviceWatch.h"
#include "DisplayText.h"
#include "EngineAggregate.h"
#include "Interrupts.h"
#include "LevelBar.h"
#include "ListCommand.h"
#include "LiveLines.h"
#include "PrivateSettings.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <dxr/CXMainBundle.h>
#include <dxr/DXRVersion.h>
#include <dxr/HostClock.h>
#include <dxr/MainQueue.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

namespace {

using Device = DemoStage::Device;

constexpr double rememberedVolume = 0.6;
constexpr const char* volumeKey = "volume";

struct Options {
    double seconds = 18.0;
    std::string picture = "out/demo.svg";
    bool isSimulated = false; // it always is; the flag is taken because every command has it
};

/// One run of the demo, from the first device to the picture.
class Demo {
public:
    explicit Demo(const Options& options);
    ~Demo() { _manager.removeDeviceNotifier(_notifier); }
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;

    /// Throws ToolFailure when not all was as it is promised.
    void run();

private:
    static DXRDeviceManager& managerOf(DemoStage& stage);
    void _remember();
    void _applySettings(const CXRef<DXRDevice>& device);
    void _introduce();
    bool _perform(const Interrupts& interrupts);
    void _tick();
    void _doDeeds();
    void _tell(const DeviceWatch::Event& event);
    void _keep(const DeviceWatch::Event& event, Device device);
    void _lookAtEngine();
    void _say(const char* about, const std::string& text, Style style);
    void _showPanel();
    std::string _stateOf(Device device) const;
    void _collectCycles();
    bool _sumUp();
    DemoClaim _told() const;
    std::string _losses() const;
    DemoClaim _known() const;
    void _checkPicture() const;
    void _writePicture(const std::string& svg, std::ios::openmode mode) const;
    double _now() const { return _secondsAt(platform::HostClock::nowTicks()); }
    double _secondsAt(uint64_t hostTicks) const
    {
        return static_cast<double>(static_cast<int64_t>(hostTicks - _begunTicks)) * 1e-9;
    }

    const Options _options;
    const PrivateSettings _settings;
    DemoStage _stage;
    DXRDeviceManager& _manager;
    std::array<CXRef<DXRDevice>, DemoStage::devices.size()> _devices;
    DemoScript _script;
    DeviceWatch _watch;
    Terminal _terminal;
    LiveLines _live;
    DXRDeviceManager::NotifierBlock _notifier;
    std::unique_ptr<DemoEngine> _engine;

    uint64_t _begunTicks = platform::HostClock::nowTicks();
    DemoHistory _history;
    std::array<double, DemoStage::devices.size()> _drifts{}, _levels{}; // as last looked at
    double _nextPlainPanel = 0.0;
    // As last looked at, of each private device that the engine has made: it makes a new one after each change.
    std::map<AudioObjectID, std::vector<AudioAggregateSubDeviceStatus>> _bridges;
    // When the last deed to each device was done, until an event tells of it.
    std::array<std::optional<std::chrono::system_clock::time_point>, DemoStage::devices.size()> _untold;
    size_t _deedsDone = 0, _deedsTold = 0;
    double _slowestMilliseconds = 0.0;
    std::vector<std::string> _headphoneUIDs; // under which they came
};

DXRDeviceManager& Demo::managerOf(DemoStage& stage)
{
    CXSetMainBundleIdentifier("dxr.demo");
    for (const Device device : DemoStage::devices)
        stage.plug(device);
    return DXRDeviceManager::sharedDeviceManager();
}

Demo::Demo(const Options& options)
    : _options(options), _stage(options.seconds + 5.0), _manager(managerOf(_stage)),
      _script(_stage, options.seconds), _watch(false), _live(_terminal)
{
    for (const Device device : DemoStage::devices) {
        _devices[device] =
            _manager.deviceWithDeviceUID(_stage.uidOf(device), DemoStage::factsOf(device).isInput);
        if (!_devices[device])
            throw ToolFailure("the simulated computer has lost a device");
    }
    _remember();
    const std::array outputs{_devices[DemoStage::Monitors], _devices[DemoStage::Headphones]};
    _engine = std::make_unique<DemoEngine>(_devices[DemoStage::Microphone], outputs, options.seconds + 5.0);
}

/// Keeps a setting of the headphones, and has it applied whenever they come.
void Demo::_remember()
{
    _devices[DemoStage::Headphones]->setOverride(rememberedVolume, volumeKey);
    for (const CXRef<DXRDevice>& device : _devices)
        _applySettings(device);
    _notifier = [this](const DXRDeviceManager::Devices& connected, const DXRDeviceManager::Devices&,
                       const DXRDeviceManager::Devices&) {
        for (const CXRef<DXRDevice>& device : connected)
            _applySettings(device);
    };
    _manager.addDeviceNotifier(CXRef<platform::WorkQueue>(&platform::MainQueue::shared()), _notifier);
}

void Demo::_applySettings(const CXRef<DXRDevice>& device)
{
    const CXPlist remembered = device->overrideForKey(volumeKey);
    if (!remembered.is_number())
        return;
    const double before = device->volume(), volume = remembered.get<double>();
    if (!device->setVolume(volume) || !_engine)
        return; // what became of it is heard; before the beginning there is nobody to tell
    const std::string text = "volume " + formatPercent(before) + " -> " + formatPercent(volume);
    _say("settings", singleLine(device->name()) + ": " + text + ", as remembered", Style::Cyan);
    if (const std::optional<Device> known = DemoStage::deviceOf(device->deviceUID()))
        _history.notes.push_back({_now(), *known, text});
}

void Demo::run()
{
    _checkPicture();
    _introduce();
    const Interrupts interrupts;
    if (!_perform(interrupts))
        throw ToolFailure("stopped before the end of the story");
    if (!_sumUp())
        throw ToolFailure("demo: some checks failed");
}

void Demo::_introduce()
{
    const size_t width = _terminal.columns();
    const auto say = [&](const std::string& text, Style style) {
        std::cout << _terminal.styled(clipToWidth(text, width), style) << "\n";
    };
    say(std::string("dxr ") + DXRVersionString() + ": discovers, monitors and combines audio devices",
        Style::Bold);
    say("A simulated computer: real threads and real time, but no sound hardware.", Style::Dim);
    std::cout << "\n";
    for (const std::string& row :
         deviceTable(DeviceReport::readAll(DeviceReport::Hidden::No), width, _terminal))
        std::cout << row << "\n";
    std::cout << "\n";
    say("Stage Microphone -> Studio Monitors and Headphones", Style::Bold);
    say(formatText("%s, cycles of %u frames, whatever each runs at, while they come and go.",
                   formatRate(DemoEngine::sampleRate).c_str(), DemoEngine::frameCount),
        Style::Dim);
    std::cout << std::endl;
}

/// False when the user has ended it early.
bool Demo::_perform(const Interrupts& interrupts)
{
    constexpr int tickMilliseconds = 20;
    for (const DeviceWatch::Event& event : _watch.begin())
        if (const auto device = DemoStage::deviceOf(event.device.uid);
            device && event.kind == DeviceWatch::Kind::Present)
            _keep(event, *device);
    _begunTicks = platform::HostClock::nowTicks();
    _engine->runner().start();
    bool goesOn = true;
    while (goesOn && _now() < _options.seconds) {
        _tick();
        goesOn = interrupts.wait(tickMilliseconds, platform::MainQueue::shared().fd());
    }
    _history.seconds = _now();
    _engine->runner().stop();
    _live.clear();
    return goesOn;
}

void Demo::_tick()
{
    _doDeeds();
    for (const DeviceWatch::Event& event : _watch.next())
        _tell(event);
    platform::MainQueue::shared().drain();
    _lookAtEngine();
    _showPanel();
}

void Demo::_doDeeds()
{
    for (;;) {
        const auto before = std::chrono::system_clock::now();
        const std::optional<DemoScript::Deed> deed = _script.doNext(_now());
        if (!deed)
            return;
        ++_deedsDone;
        _untold[deed->device] = before;
    }
}

void Demo::_tell(const DeviceWatch::Event& event)
{
    using enum DeviceWatch::Kind;
    const std::optional<Device> device = DemoStage::deviceOf(event.device.uid);
    const bool isAbout = device && (event.kind != Changed || event.what.ends_with("volume"));
    if (!isAbout)
        return; // the engine's own device, or how cycles run
    const double seconds = _now();
    const Style style = event.kind == Connected                                  ? Style::Green
                        : event.kind == Disconnected || event.kind == LostCycles ? Style::Red
                                                                                 : Style::Cyan;
    const std::string time = fitRight(formatSeconds(seconds), 7) + "  ";
    const size_t room = _terminal.columns() - std::min(_terminal.columns(), time.size());
    _live.printAbove(_terminal.styled(time, Style::Dim) +
                     _terminal.styled(clipToWidth(event.text(), room), style));
    _keep(event, *device);
    if (_untold[*device] && (event.kind == Connected || event.kind == Disconnected)) {
        const auto wait = std::chrono::duration<double, std::milli>(event.when - *_untold[*device]).count();
        _slowestMilliseconds = std::max({_slowestMilliseconds, 0.0, wait});
        ++_deedsTold;
        _untold[*device].reset();
    }
}

void Demo::_keep(const DeviceWatch::Event& event, Device device)
{
    using enum DeviceWatch::Kind;
    const double seconds = event.kind == Present ? 0.0 : _now();
    if (event.kind == Present || event.kind == Connected) {
        _history.presences.push_back({device, seconds, -1.0});
        if (device == DemoStage::Headphones)
            _headphoneUIDs.push_back(event.device.uid);
    } else if (event.kind == Disconnected) {
        for (DemoHistory::Presence& presence : _history.presences)
            if (presence.device == device && presence.to < 0.0)
                presence.to = seconds;
    } else if (event.kind == Changed) {
        _history.notes.push_back({seconds, device, event.shortText()});
    }
}

/// Looks at what runs, and by whose clock.
void Demo::_lookAtEngine()
{
    const double now = _now();
    const DXRDeviceRunner::Devices active = _engine->runner().activeDevices();
    DemoHistory::Context context{now, active.size(), DemoStage::Microphone};
    const std::vector<AudioAggregateSubDeviceStatus> all = EngineAggregate::status();
    if (!all.empty())
        _bridges[EngineAggregate::deviceID()] = all;
    _drifts = {};
    for (const Device device : DemoStage::devices) {
        if (active.size() == 1 && active.contains(_devices[device]))
            context.leader = device;
        const auto status =
            std::ranges::find(all, _devices[device]->deviceID(), &AudioAggregateSubDeviceStatus::deviceID);
        if (status == all.end() || status->deviceID == kAudioObjectUnknown || !status->isRunning)
            continue;
        if (status->isClock) {
            context.leader = device;
        } else {
            _drifts[device] = status->partsPerMillion;
            _history.drifts.push_back({now, device, status->partsPerMillion});
        }
    }
    if (context.deviceCount > 0 && !active.contains(_devices[context.leader]))
        return; // it changes just now
    const DemoHistory::Context* const before = _history.contextAt(now);
    if (before && before->deviceCount == context.deviceCount &&
        (context.deviceCount == 0 || before->leader == context.leader))
        return;
    _history.contexts.push_back(context);
    const std::string leader = DemoStage::factsOf(context.leader).name;
    _say("engine",
         context.deviceCount == 0 ? "no device: a timer keeps the time"
         : context.deviceCount == 1
             ? leader + " alone"
             : formatText("%zu devices as one, by the clock of ", context.deviceCount) + leader,
         Style::Yellow);
}

/// A lasting line.
void Demo::_say(const char* about, const std::string& text, Style style)
{
    const std::string time = fitRight(formatSeconds(_now()), 7) + "  ";
    const size_t room = _terminal.columns() - std::min(_terminal.columns(), time.size());
    _live.printAbove(_terminal.styled(time, Style::Dim) +
                     _terminal.styled(clipToWidth(fitLeft(about, 14) + text, room), style));
}

std::string Demo::_stateOf(Device device) const
{
    const DemoHistory::Context* const context = _history.contextAt(_now());
    if (!_devices[device]->isConnected())
        return "absent";
    if (context && context->deviceCount > 0 && context->leader == device)
        return "leads";
    return _drifts[device] != 0.0 ? formatText("follows by %+.1f ppm", _drifts[device]) : "here";
}

void Demo::_showPanel()
{
    const double now = _now();
    const float peaks[] = {_engine->takePeak(), _stage.recordingOf(DemoStage::Monitors).takePeak(),
                           _stage.recordingOf(DemoStage::Headphones).takePeak()};
    constexpr double fall = 0.92; // of a tick
    for (const Device device : DemoStage::devices)
        _levels[device] = std::max(double{peaks[device]}, _levels[device] * fall);
    const std::string state =
        formatText("%s of %.0f s", formatSeconds(std::min(now, _options.seconds)).c_str(), _options.seconds);
    if (_terminal.isLive()) {
        const size_t width = _terminal.columns() - 1;
        std::vector<std::string> lines;
        for (const Device device : DemoStage::devices) {
            const bool isHere = _devices[device]->isConnected();
            const std::string start = clipToWidth(
                fitLeft(DemoStage::factsOf(device).name, 18) + fitLeft(_stateOf(device), 22), width);
            const std::string level = isHere ? fitRight(formatLevel(_levels[device]), 9) : "";
            const size_t used = displayWidth(start) + level.size() + 1;
            lines.push_back(
                _terminal.styled(start, isHere ? Style::Plain : Style::Dim) +
                (isHere && used < width
                     ? levelBar(static_cast<float>(_levels[device]), width - used, _terminal) + " " + level
                     : ""));
        }
        lines.push_back(_terminal.styled(
            clipToWidth(state + formatText("   sample time %.3f s",
                                           static_cast<double>(_engine->runner().sampleTime()) /
                                               DemoEngine::sampleRate),
                        width),
            Style::Dim));
        _live.draw(lines);
    } else if (now >= _nextPlainPanel) {
        _nextPlainPanel = now + 2.0;
        std::string text;
        for (const Device device : DemoStage::devices)
            if (_devices[device]->isConnected())
                text += (text.empty() ? "" : ", ") + std::string(DemoStage::factsOf(device).shortName) + " " +
                        formatLevel(_levels[device]);
        if (!text.empty())
            _say("levels", text, Style::Plain);
    }
}

// ---- The end

void Demo::_collectCycles()
{
    for (const DemoEngine::Cycle& cycle : _engine->cycles())
        _history.cycles.push_back(
            {_secondsAt(cycle.hostTicks), static_cast<double>(cycle.sampleTime) / DemoEngine::sampleRate});
    for (const Device output : DemoStage::outputs)
        _history.addTones(output, _stage.recordingOf(output), _begunTicks);
}

DemoClaim Demo::_told() const
{
    return {_deedsTold == _script.deedCount(), "told",
            formatText("%zu of %zu comings and goings, the slowest after %.1f ms", _deedsTold,
                       _script.deedCount(), _slowestMilliseconds)};
}

DemoClaim Demo::_known() const
{
    const CXRef<DXRDevice>& headphones = _devices[DemoStage::Headphones];
    const bool isAsRemembered = std::abs(headphones->volume() - rememberedVolume) < 0.001;
    const bool hasMoved = _headphoneUIDs.size() > 1 && _headphoneUIDs.front() != _headphoneUIDs.back();
    return {headphones->isConnected() && hasMoved && isAsRemembered, "known",
            "the headphones in another port are the same object, their volume " +
                formatPercent(headphones->volume()) + " as remembered"};
}

/// What the machine was too busy for; the rest of the story is held to be true all the same.
std::string Demo::_losses() const
{
    uint64_t byDevices = 0, byBridges = 0;
    for (const Device output : DemoStage::outputs)
        byDevices += _stage.recordingOf(output).lostFrames();
    for (const auto& [aggregate, all] : _bridges)
        for (const AudioAggregateSubDeviceStatus& status : all)
            byBridges += status.lostFrames;
    return formatCount(byDevices, "frame", "frames") + " by the outputs' own hardware, " +
           formatCount(byBridges, "frame", "frames") + " on the way to them; " +
           formatCount(_history.contexts.size() - 1, "restart", "restarts") + " of the engine";
}

bool Demo::_sumUp()
{
    _collectCycles();
    const DemoClaim claims[] = {_told(), _known(), DemoClaim::ofTime(_history),
                                DemoClaim::ofSound(_history, rememberedVolume)};
    std::cout << "\n" << _terminal.styled("What was true", Style::Bold) << "\n";
    const size_t width = _terminal.columns();
    constexpr size_t indent = 12;
    const auto say = [&](const std::string& mark, Style style, const std::string& about,
                         const std::string& text) {
        std::string label = _terminal.styled(fitLeft(mark, 4), style) +
                            _terminal.styled(fitLeft(about, indent - 4), Style::Dim);
        for (const std::string& line : wrapped(text, width - std::min(width - 10, indent))) {
            std::cout << label << line << "\n";
            label = std::string(indent, ' ');
        }
    };
    for (const DemoClaim& claim : claims)
        say(claim.isTrue ? "yes" : "NO", claim.isTrue ? Style::Green : Style::Red, claim.about, claim.text);
    say("", Style::Plain, "lost", _losses());
    _writePicture(demoPicture(_history, claims[3].text), std::ios::trunc);
    say("", Style::Plain, "picture", std::filesystem::absolute(_options.picture).lexically_normal().string());
    return std::ranges::all_of(claims, &DemoClaim::isTrue);
}

/// Before the show, so that nobody watches it for nothing.
void Demo::_checkPicture() const
{
    const std::filesystem::path path(_options.picture);
    std::error_code ignored;
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ignored);
    const bool isThere = std::filesystem::exists(path, ignored);
    _writePicture("", std::ios::app);
    if (!isThere)
        std::filesystem::remove(path, ignored);
}

void Demo::_writePicture(const std::string& svg, std::ios::openmode mode) const
{
    errno = 0;
    std::ofstream file(_options.picture, mode);
    file << svg;
    file.close();
    if (!file)
        throw ToolFailure(singleLine(_options.picture) + ": cannot be written: " + std::strerror(errno));
}

} // namespace

void registerDemoCommand(CLI::App& app)
{
    CLI::App* command =
        app.add_subcommand("demo", "Watch audio run while devices come and go, and measure it");
    const auto options = std::make_shared<Options>();
    command->add_option("--seconds", options->seconds, "How long; 18 if not said")
        ->check(CLI::Range(8.0, 120.0));
    command->add_option("--picture", options->picture,
                        "Where the picture of the run goes; out/demo.svg if not said");
    command->add_flag("--simulated", options->isSimulated,
                      "Without effect: the demo's hardware is simulated anyway");
    command->callback([options] { Demo(*options).run(); });
}
