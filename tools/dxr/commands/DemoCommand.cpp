#include "Commands.h"
#include "CyclePicture.h"
#include "DemoClaim.h"
#include "DemoScript.h"
#include "DeviceTable.h"
#include "DisplayText.h"
#include "LoopPatch.h"
#include "PrivateSettings.h"
#include "SessionScreen.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <dxr/CXMainBundle.h>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRVersion.h>
#include <dxr/HostClock.h>
#include <dxr/MainQueue.h>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

using Device = DemoStage::Device;

constexpr double rememberedVolume = 0.6;
constexpr const char* volumeKey = "volume";
constexpr double sampleRate = 48000.0;
constexpr uint32_t frameCount = 512;
constexpr const char* colours[] = {"#e07a3f", "#3b82c4", "#43a68b"}; // of the devices' curves

struct Options {
    double seconds = 18.0;
    std::string picture = "out/demo.svg";
    bool isSimulated = false; // it always is; the flag is taken because every command has it
};

/// One run of the demo, from the first device to the picture: a session of the runner over simulated devices, to which the
/// script happens, and what can be said of it.
class Demo {
public:
    explicit Demo(const Options& options);
    ~Demo();
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;

    /// Throws ToolFailure when not everything was as it is promised.
    void run();

private:
    static DXRDeviceManager& managerOf(DemoStage& stage);
    DeviceSelection _selection(Device device) const;
    void _introduce() const;
    bool _perform();
    void _doSteps();
    void _devicesChanged(const DXRDeviceManager::Devices& connected,
                         const DXRDeviceManager::Devices& disconnected);
    void _applySettings(const CXRef<DXRDevice>& device);
    void _look();
    void _print(const std::string& what) { _screen.print(formatSeconds(_session.seconds()) + "  " + what); }
    bool _sumUp();
    void _drawPicture(const std::string& results, std::span<const DemoTone> tones);
    DemoClaim _reported() const;
    DemoClaim _known() const;

    const Options _options;
    const PrivateSettings _settings;
    DemoStage _stage;
    DXRDeviceManager& _manager;
    std::array<CXRef<DXRDevice>, DemoStage::devices.size()> _devices;
    DemoScript _script;
    const Interrupts _interrupts;
    RunnerSession _session{_interrupts, frameCount, sampleRate};
    SessionScreen _screen{_session};
    CXRef<LoopPatch> _patch;
    DXRDeviceManager::NotifierBlock _notifier;

    std::vector<DXRCycleRecord> _records;
    CyclePicture _picture;
    std::array<CyclePicture::Panel::Curve, DemoStage::devices.size()> _drifts;
    std::vector<DemoStretch> _stretches; // the last one's end is open
    std::string _context;                // as last printed
    bool _isOpen = false;
    // When the last step of each device was done, until its change is reported.
    std::array<std::optional<uint64_t>, DemoStage::devices.size()> _pending;
    size_t _stepsDone = 0, _stepsReported = 0;
    double _slowestSeconds = 0.0;
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
      _script(_stage, options.seconds)
{
    for (const Device device : DemoStage::devices) {
        _devices[device] =
            _manager.deviceWithDeviceUID(_stage.uidOf(device), DemoStage::factsOf(device).isInput);
        if (!_devices[device])
            throw ToolFailure("a device of the simulated computer is missing");
        _drifts[device] = {DemoStage::factsOf(device).name, colours[device], {}};
    }
    _headphoneUIDs.push_back(_stage.uidOf(DemoStage::Headphones));
    _devices[DemoStage::Headphones]->setOverride(rememberedVolume, volumeKey);
    if (!_devices[DemoStage::Headphones]->setVolume(rememberedVolume))
        throw ToolFailure("the simulated headphones have no volume");
    _notifier = [this](const auto& connected, const auto& disconnected, const auto&) {
        _devicesChanged(connected, disconnected);
    };
    _manager.addDeviceNotifier(CXRef<dxr::WorkQueue>(&dxr::MainQueue::shared()), _notifier);
    _patch =
        LoopPatch::initWithSelections({_selection(DemoStage::Microphone)},
                                      {_selection(DemoStage::Monitors), _selection(DemoStage::Headphones)});
    _patch->addTo(_session);
    _session.setRecords([this](std::span<const DXRCycleRecord> records) {
        _records.insert(_records.end(), records.begin(), records.end());
        for (const DXRCycleRecord& record : records)
            _picture.note(record);
    });
}

Demo::~Demo()
{
    _session.stop();
    _manager.removeDeviceNotifier(_notifier);
}

DeviceSelection Demo::_selection(Device device) const
{
    const std::optional<DeviceReport> report = DeviceReport::read(_devices[device]->deviceID());
    if (!report)
        throw ToolFailure("a device of the simulated computer is missing");
    const bool isInput = DemoStage::factsOf(device).isInput;
    return DeviceSelection::of(*report, isInput ? HALDirection::Input : HALDirection::Output);
}

void Demo::run()
{
    const std::filesystem::path path(_options.picture);
    std::error_code ignored;
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ignored);
    const bool isThere = std::filesystem::exists(path, ignored);
    if (!std::ofstream(path, std::ios::app)) // reported at once, not after the show
        throw ToolFailure(singleLine(_options.picture) + ": cannot be written");
    if (!isThere)
        std::filesystem::remove(path, ignored);
    _introduce();
    if (!_perform())
        throw ToolFailure("demo: stopped before its end");
    if (!_sumUp())
        throw ToolFailure("demo: some checks failed");
}

void Demo::_introduce() const
{
    const Terminal terminal;
    const auto print = [&](const std::string& text, Style style) {
        std::cout << terminal.styled(clipToWidth(text, terminal.columns()), style) << "\n";
    };
    print(std::string("dxr ") + DXRVersionString() + ": discovers, monitors and combines audio devices",
          Style::Bold);
    print("A simulated computer: real threads and real time, but no sound hardware.", Style::Dim);
    std::cout << "\n";
    for (const std::string& row :
         deviceTable(DeviceReport::readAll(DeviceReport::Hidden::No), terminal.columns(), terminal))
        std::cout << row << "\n";
    std::cout << "\n";
    print("Stage Microphone -> Studio Monitors and Headphones", Style::Bold);
    print(formatText("%s, blocks of %u frames; the devices run at other rates, and come and go.",
                     formatRate(sampleRate).c_str(), frameCount),
          Style::Dim);
    std::cout << std::endl;
}

/// False when the user has ended it early.
bool Demo::_perform()
{
    _stretches.push_back({dxr::HostClock::nowTicks(), 0, {true, true, true}});
    bool goesOn = _session.start();
    while (goesOn && _session.seconds() < _options.seconds) {
        _doSteps();
        goesOn = _screen.wait();
        _look();
        _screen.draw(_patch->meters(), formatSeconds(_session.seconds()) +
                                           formatText(" of %.0f s   ", _options.seconds) + _context);
    }
    _stretches.back().to = dxr::HostClock::nowTicks();
    _session.stop();
    _screen.finish("");
    return goesOn;
}

void Demo::_doSteps()
{
    for (;;) {
        const uint64_t before = dxr::HostClock::nowTicks();
        const std::optional<DemoScript::Step> step = _script.doNext(_session.seconds());
        if (!step)
            return;
        ++_stepsDone;
        _pending[step->device] = before;
        if (step->isPlug && step->device == DemoStage::Headphones)
            _headphoneUIDs.push_back(_stage.uidOf(DemoStage::Headphones));
        DemoStretch next = _stretches.back();
        _stretches.back().to = before;
        next.from = dxr::HostClock::nowTicks();
        next.isPlugged[step->device] = step->isPlug;
        _stretches.push_back(next);
    }
}

void Demo::_devicesChanged(const DXRDeviceManager::Devices& connected,
                           const DXRDeviceManager::Devices& disconnected)
{
    const uint64_t now = dxr::HostClock::nowTicks();
    for (const Device device : DemoStage::devices) {
        if (!connected.contains(_devices[device]) && !disconnected.contains(_devices[device]))
            continue;
        if (_pending[device]) {
            _slowestSeconds = std::max(_slowestSeconds, secondsOf(now - *_pending[device]));
            ++_stepsReported;
            _pending[device].reset();
        }
    }
    for (const CXRef<DXRDevice>& device : connected)
        _applySettings(device);
}

/// What is kept of the device is applied whenever it connects.
void Demo::_applySettings(const CXRef<DXRDevice>& device)
{
    const CXPlist remembered = device->overrideForKey(volumeKey);
    if (!remembered.is_number())
        return;
    const double before = device->volume(), volume = remembered.get<double>();
    if (!device->setVolume(volume))
        return;
    const std::string text = "volume " + formatPercent(before) + " -> " + formatPercent(volume);
    _print(singleLine(device->name()) + ": " + text + ", as remembered");
    if (const std::optional<Device> known = DemoStage::deviceOf(device->deviceUID()))
        _picture.remark(*known, text);
}

/// Notes what runs, and by which clock.
void Demo::_look()
{
    if (!_isOpen && _session.isSettled()) {
        _isOpen = true;
        _session.beginCounting();
        _patch->open();
        _stretches.back().from = dxr::HostClock::nowTicks();
    }
    std::vector<bool> isConnected;
    for (const Device device : DemoStage::devices) {
        const SessionDevice& status = _session.devices()[device];
        isConnected.push_back(status.isConnected());
        if (const std::optional<double> drift = status.partsPerMillion())
            _drifts[device].points.push_back({_picture.secondsAt(dxr::HostClock::nowTicks()), *drift});
    }
    _picture.notePresence(isConnected);
    const std::string context = _session.contextText();
    const bool isKnown =
        context.find(" as one") == std::string::npos || context.find("clock of") != std::string::npos;
    if (context != _context && isKnown)
        _print(_context = context);
}

// ---- The end

DemoClaim Demo::_reported() const
{
    return {_stepsReported == _script.stepCount(), "reported",
            formatText("%zu of %zu connections and disconnections, the slowest after %.1f ms", _stepsReported,
                       _script.stepCount(), 1e3 * _slowestSeconds)};
}

DemoClaim Demo::_known() const
{
    const CXRef<DXRDevice>& headphones = _devices[DemoStage::Headphones];
    const bool isAsRemembered = std::abs(headphones->volume() - rememberedVolume) < 0.001;
    const bool hasMoved = _headphoneUIDs.front() != _headphoneUIDs.back();
    return {headphones->isConnected() && hasMoved && isAsRemembered, "known",
            "the headphones in another port are the same object, their volume " +
                formatPercent(headphones->volume()) + " as remembered"};
}

bool Demo::_sumUp()
{
    const std::vector<DemoTone> tones = DemoTone::measure(_stage);
    const DemoClaim claims[] = {
        _reported(), _known(), DemoClaim::ofTime(_records, sampleRate),
        DemoClaim::ofSound(tones, DemoStretch::cut(_stretches, _records), rememberedVolume)};
    const Terminal terminal;
    const size_t width = terminal.columns();
    constexpr size_t indent = 14;
    const auto print = [&](const std::string& mark, Style style, const std::string& about,
                           const std::string& text) {
        std::string label = terminal.styled(fitLeft(mark, 4), style) +
                            terminal.styled(fitLeft(about, indent - 4), Style::Dim);
        for (const std::string& line : wrapped(text, width - std::min(width - 10, indent))) {
            std::cout << label << line << "\n";
            label = std::string(indent, ' ');
        }
    };
    std::cout << "\n" << terminal.styled("What was true", Style::Bold) << "\n";
    for (const DemoClaim& claim : claims)
        print(claim.isTrue ? "yes" : "NO", claim.isTrue ? Style::Green : Style::Red, claim.about, claim.text);
    _drawPicture(claims[3].text, tones);
    print("", Style::Plain, "picture",
          std::filesystem::absolute(_options.picture).lexically_normal().string());
    return std::ranges::all_of(claims, &DemoClaim::isTrue);
}

void Demo::_drawPicture(const std::string& results, std::span<const DemoTone> tones)
{
    std::vector<CyclePicture::Panel::Curve> levels, qualities;
    for (const Device device : DemoStage::outputs) {
        const char* const name = DemoStage::factsOf(device).name;
        levels.push_back({name, colours[device], {}});
        qualities.push_back({name, colours[device], {}});
        for (const DemoTone& tone : tones) {
            if (tone.output != device)
                continue;
            const double seconds = _picture.secondsAt(tone.hostTicks);
            levels.back().points.push_back(
                {seconds, tone.level > 0.0 ? 20.0 * std::log10(tone.level) : -200.0});
            qualities.back().points.push_back({seconds, tone.quality});
        }
    }
    _picture.add({"drift of the clocks against the leader's",
                  -300.0,
                  300.0,
                  " ppm",
                  {_drifts.begin(), _drifts.end()}});
    _picture.add({"level of the tone", -48.0, 0.0, " dB", levels});
    _picture.add({"tone to all else", 0.0, 120.0, " dB", qualities});
    std::vector<std::string> names;
    for (const Device device : DemoStage::devices)
        names.emplace_back(DemoStage::factsOf(device).name);
    Chart::writeFile(_options.picture,
                     _picture.svg(sampleRate, names,
                                  formatText("dxr demo: devices come and go in %.1f s, and the time goes on",
                                             _options.seconds),
                                  results));
}

} // namespace

void registerDemoCommand(CLI::App& app)
{
    CLI::App* command =
        app.add_subcommand("demo", "Watch audio run while devices come and go, and measure it");
    const auto options = std::make_shared<Options>();
    command->add_option("--seconds", options->seconds, "How long; 18 if not given")
        ->check(CLI::Range(8.0, 120.0));
    command->add_option("--picture", options->picture,
                        "Where the picture of the run goes; out/demo.svg if not given");
    command->add_flag("--simulated", options->isSimulated,
                      "Without effect: the demo's hardware is simulated anyway");
    command->callback([options] { Demo(*options).run(); });
}
