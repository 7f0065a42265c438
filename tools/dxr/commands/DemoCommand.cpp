#include "Commands.h"

#include "CyclePicture.h"
#include "DemoClaim.h"
#include "LoopPatch.h"
#include "SessionScreen.h"

#include <cerrno>
#include <cstring>
#include <dxr/CXMainBundle.h>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRVersion.h>
#include <dxr/HostClock.h>
#include <dxr/MainQueue.h>
#include <filesystem>
#include <fstream>

namespace {

using Device = DemoStage::Device;
using dxr::HostClock;

constexpr double rememberedVolume = 0.6;
constexpr const char* volumeKey = "volume";
constexpr double sampleRate = 48000.0;
constexpr uint32_t frameCount = 512;
constexpr const char* colours[] = {"#e07a3f", "#3b82c4", "#43a68b"}; // of the devices' curves

struct Options {
    double seconds = 18.0;
    std::string picture = "out/demo.svg";
};

/// Replaces the user's stored settings by a private, initially empty folder, which is removed at the end.
/// Threads: no other thread may be running when the object is created.
class PrivateSettings {
public:
    PrivateSettings()
    {
        std::error_code ignored;
        _folder = std::filesystem::temp_directory_path(ignored) / "dxr-demo-XXXXXX";
        if (ignored || !mkdtemp(_folder.data()))
            throw ToolFailure(_folder + ": cannot be made: " + std::strerror(errno));
        setenv("XDG_DATA_HOME", _folder.c_str(), 1); // the library stores settings there
        CXSetMainBundleIdentifier("dxr.demo");
    }
    ~PrivateSettings()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_folder, ignored);
    }
    PrivateSettings(const PrivateSettings&) = delete;
    PrivateSettings& operator=(const PrivateSettings&) = delete;

private:
    std::string _folder;
};

/// One run of the demo: a session over simulated devices, the script, and the measurements.
class Demo {
public:
    explicit Demo(const Options& options);
    ~Demo();

    /// Throws ToolFailure if the user stops the demo or a claim is not confirmed.
    void run();

private:
    void _introduce() const;
    bool _perform();
    void _performSteps();
    void _devicesChanged(const DXRDeviceManager::Devices& connected,
                         const DXRDeviceManager::Devices& disconnected);
    void _applySettings(Device which);
    void _noteState();
    void _print(const std::string& text) { _screen.print(formatSeconds(_session.seconds()) + "  " + text); }
    bool _sumUp();
    void _drawPicture(const std::string& results, std::span<const DemoTone> tones);

    const Options _options;
    const PrivateSettings _settings;
    DemoStage _stage;
    DXRDeviceManager& _manager;
    std::vector<DeviceSelection> _devices; // indexed by DemoStage::Device
    const Interrupts _interrupts;
    RunnerSession _session{_interrupts, frameCount, sampleRate};
    SessionScreen _screen{_session};
    CXRef<LoopPatch> _patch;
    DXRDeviceManager::NotifierBlock _notifier;

    std::vector<DXRCycleRecord> _records;
    CyclePicture _picture;
    std::array<ChartCurve, DemoStage::devices.size()> _drifts;
    std::vector<DemoStretch> _stretches; // the last one has not ended
    std::string _context;                // as last printed
    // For each device, the time of its last step; null once the device's change has been reported.
    std::array<std::optional<uint64_t>, DemoStage::devices.size()> _pending;
    size_t _stepsReported = 0;
    double _slowestSeconds = 0.0; // maximum from a step to its report
    std::string _firstUID;        // of the headphones
};

Demo::Demo(const Options& options)
    : _options(options), _stage(options.seconds), _manager(DXRDeviceManager::sharedDeviceManager()),
      _firstUID(_stage.uidOf(DemoStage::Headphones))
{
    for (const Device device : DemoStage::devices) {
        const DemoStage::Facts& facts = DemoStage::facts[device];
        _devices.push_back(DeviceSelection::find(_stage.uidOf(device), facts.direction));
        _drifts[device] = {facts.name, colours[device], {}};
    }
    const CXRef<DXRDevice>& headphones = _devices[DemoStage::Headphones].device;
    headphones->setOverride(rememberedVolume, volumeKey);
    if (!headphones->setVolume(rememberedVolume))
        throw ToolFailure("the simulated headphones have no volume");
    _notifier = [this](const auto& connected, const auto& disconnected, const auto&) {
        _devicesChanged(connected, disconnected);
    };
    _manager.addDeviceNotifier(CXRef<dxr::WorkQueue>(&dxr::MainQueue::shared()), _notifier);
    _patch = LoopPatch::initWithSelections({_devices[DemoStage::Microphone]},
                                           {_devices[DemoStage::Monitors], _devices[DemoStage::Headphones]});
    _patch->addTo(_session);
    _session.setRecords([this](std::span<const DXRCycleRecord> records) {
        _records.insert(_records.end(), records.begin(), records.end());
        _picture.note(records);
    });
    _session.setSettled([this] {
        _patch->setOpen();
        _stretches.back().from = HostClock::nowTicks();
    });
}

Demo::~Demo()
{
    _session.stop();
    _manager.removeDeviceNotifier(_notifier);
}

void Demo::run()
{
    const std::filesystem::path path(_options.picture);
    std::error_code ignored;
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ignored);
    const bool exists = std::filesystem::exists(path, ignored);
    if (!std::ofstream(path, std::ios::app)) // report the error now and not after the run
        throw ToolFailure(singleLine(_options.picture) + ": cannot be written");
    if (!exists)
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
    std::cout << "\n"
              << joined(deviceTable(DeviceReport::readAll(DeviceReport::Hidden::No), terminal.columns(),
                                    terminal),
                        "\n")
              << "\n\n";
    print("Stage Microphone -> Studio Monitors and Headphones", Style::Bold);
    print(formatText("%s, blocks of %u frames; the devices run at other rates, and connect and disconnect.",
                     formatRate(sampleRate).c_str(), frameCount),
          Style::Dim);
    std::cout << std::endl;
}

/// Runs the script. Returns false if the user has stopped it early.
bool Demo::_perform()
{
    _stretches.push_back({HostClock::nowTicks(), 0, {true, true, true}});
    bool goesOn = _session.start();
    while (goesOn && _session.seconds() < _options.seconds) {
        _performSteps();
        goesOn = _screen.wait();
        _noteState();
        _screen.draw(_patch->meters(), formatSeconds(_session.seconds()) +
                                           formatText(" of %.0f s   ", _options.seconds) + _context);
    }
    _stretches.back().to = HostClock::nowTicks();
    _session.stop();
    _screen.finish("");
    return goesOn;
}

void Demo::_performSteps()
{
    uint64_t before = HostClock::nowTicks();
    while (const std::optional<DemoStage::Step> step = _stage.performNext(_session.seconds())) {
        _pending[step->device] = before;
        DemoStretch next = _stretches.back();
        _stretches.back().to = before;
        before = next.from = HostClock::nowTicks();
        next.isPlugged[step->device] = step->isPlug;
        _stretches.push_back(next);
    }
}

void Demo::_devicesChanged(const DXRDeviceManager::Devices& connected,
                           const DXRDeviceManager::Devices& disconnected)
{
    const uint64_t now = HostClock::nowTicks();
    for (const Device device : DemoStage::devices) {
        const CXRef<DXRDevice>& object = _devices[device].device;
        if (connected.contains(object))
            _applySettings(device);
        if (!_pending[device] || (!connected.contains(object) && !disconnected.contains(object)))
            continue;
        _slowestSeconds = std::max(_slowestSeconds, secondsOf(now - *_pending[device]));
        _pending[device].reset();
        ++_stepsReported;
    }
}

void Demo::_applySettings(Device which)
{
    const CXRef<DXRDevice>& device = _devices[which].device;
    const CXPlist remembered = device->overrideForKey(volumeKey);
    if (!remembered.is_number())
        return;
    const double before = device->volume(), volume = remembered.get<double>();
    if (!device->setVolume(volume))
        return;
    const std::string text = "volume " + formatPercent(before) + " -> " + formatPercent(volume);
    _print(singleLine(device->name()) + ": " + text + ", as remembered");
    _picture.remark(which, text);
}

/// Notes the connected devices, their clocks, and the source of the cycles.
void Demo::_noteState()
{
    for (const Device device : DemoStage::devices)
        if (const std::optional<double> drift = _session.devices()[device].partsPerMillion())
            _drifts[device].points.push_back({_picture.secondsAt(HostClock::nowTicks()), *drift});
    _picture.notePresence(_session.connections());
    const std::string context = _session.contextText();
    const bool isComplete =
        context.find(" as one") == std::string::npos || context.find("clock of") != std::string::npos;
    if (context != _context && isComplete)
        _print(_context = context);
}

// ---- The results

bool Demo::_sumUp()
{
    const std::vector<DemoTone> tones = DemoTone::measure(_stage);
    const DXRDevice& headphones = *_devices[DemoStage::Headphones].device;
    const bool isKnown = headphones.isConnected() && _stage.uidOf(DemoStage::Headphones) != _firstUID &&
                         std::abs(headphones.volume() - rememberedVolume) < 0.001;
    const DemoClaim claims[] = {
        {_stepsReported == DemoStage::stepCount, "reported",
         formatText("%zu of %zu connections and disconnections, the slowest after %.1f ms", _stepsReported,
                    DemoStage::stepCount, 1e3 * _slowestSeconds)},
        {isKnown, "known",
         "the headphones in another port are the same object, their volume " +
             formatPercent(headphones.volume()) + " as remembered"},
        DemoClaim::ofTime(_records, sampleRate),
        DemoClaim::ofSound(tones, DemoStretch::cut(_stretches, _records), rememberedVolume)};
    const Terminal terminal;
    const auto print = [&](const char* mark, Style style, const std::string& about, const std::string& text) {
        terminal.printLabelled(terminal.styled(fitLeft(mark, 4), style) +
                                   terminal.styled(fitLeft(about, 10), Style::Dim),
                               14, text);
    };
    std::cout << "\n" << terminal.styled("Confirmed", Style::Bold) << "\n";
    for (const DemoClaim& claim : claims)
        print(claim.isTrue ? "yes" : "NO", claim.isTrue ? Style::Green : Style::Red, claim.about, claim.text);
    _drawPicture(claims[3].text, tones);
    print("", Style::Plain, "picture",
          std::filesystem::absolute(_options.picture).lexically_normal().string());
    return std::ranges::all_of(claims, &DemoClaim::isTrue);
}

void Demo::_drawPicture(const std::string& results, std::span<const DemoTone> tones)
{
    std::vector<ChartCurve> levels, qualities;
    for (const Device device : DemoStage::outputs) {
        levels.push_back({DemoStage::facts[device].name, colours[device], {}});
        qualities.push_back(levels.back());
        for (const DemoTone& tone : tones) {
            if (tone.output != device)
                continue;
            const double seconds = _picture.secondsAt(tone.hostTicks);
            levels.back().points.push_back({seconds, 20.0 * std::log10(tone.level)});
            qualities.back().points.push_back({seconds, tone.quality});
        }
    }
    _picture.add({"drift of the clocks", -300.0, 300.0, " ppm", {_drifts.begin(), _drifts.end()}});
    _picture.add({"level of the tone", -48.0, 0.0, " dB", levels});
    _picture.add({"tone to all else", 0.0, 120.0, " dB", qualities});
    std::vector<std::string> names;
    std::ranges::transform(DemoStage::devices, std::back_inserter(names),
                           [](Device device) { return DemoStage::facts[device].name; });
    const std::string title =
        formatText("dxr demo: devices connect and disconnect in %.1f s; time goes on", _options.seconds);
    Chart::writeFile(_options.picture, _picture.svg(sampleRate, names, title, results));
}

} // namespace

void registerDemoCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(
        app, "demo", "Run audio while devices connect and disconnect, and measure it",
        +[](Options& demo) { Demo(demo).run(); });
    command.add_option("--seconds", options.seconds, "The duration; 18 if not given")
        ->check(numberFrom(8.0, 120.0));
    command.add_option("--picture", options.picture, "The picture to write; out/demo.svg if not given");
    // Accepted because every command has it.
    command.add_flag("--simulated")->description("No effect: the demo's hardware is always simulated");
}
