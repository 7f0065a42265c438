#include "DemoCommand.h"

#include "AudioLoop.h"
#include "DemoScript.h"
#include "DemoStudio.h"
#include "DeviceWatch.h"
#include "DisplayText.h"
#include "ListCommand.h"
#include "LiveLines.h"
#include "RunPicture.h"
#include "SimulatedZoo.h"
#include "SineFit.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dxr/DXRVersion.h>
#include <dxr/QDL.h>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

struct Options {
    double seconds = 10.0;
    std::string picture = "out/demo.svg";
    bool isSimulated = false; // it always is; the flag is taken because every command has it
};

/// One run of the demo, from the first device to the picture.
class Demo {
public:
    explicit Demo(const Options& options);

    void run();

private:
    using Clock = std::chrono::steady_clock;

    void _introduce();
    void _perform(const Interrupts& interrupts);
    void _tick();
    void _tell(const std::vector<DeviceWatch::Event>& events);
    void _keepInPicture(const DeviceWatch::Event& event, double seconds);
    void _showLevels();
    void _sumUp();
    void _savePicture(const std::string& results) const;
    double _now() const { return std::chrono::duration<double>(Clock::now() - _begun).count(); }

    const Options _options;
    const CXRef<SimulatedBackend> _backend;
    DemoStudio _studio;
    DemoScript _script;
    DeviceWatch _watch;
    RunPicture _picture;
    Terminal _terminal;
    LiveLines _live;
    CXRef<AudioLoop> _loop;
    Clock::time_point _begun = Clock::now();
    double _seconds = 0.0; // how long it ran
    double _nextPlainLevels = 0.0;
    size_t _came = 0, _went = 0, _changed = 0;
    // When the last deed began, until an event tells of it.
    std::optional<std::chrono::system_clock::time_point> _deedBegun;
    double _slowestEventMilliseconds = 0.0;
    size_t _deedsDone = 0, _deedsTold = 0;
};

CXRef<SimulatedBackend> openHardware()
{
    CXRef<SimulatedBackend> backend = SimulatedZoo::open();
    backend->unplug("zoo-ramp");
    HALSetBackend(backend);
    return backend;
}

Demo::Demo(const Options& options)
    : _options(options), _backend(openHardware()), _studio(*_backend, options.seconds),
      _script(_backend, options.seconds), _watch(false), _live(_terminal)
{}

void Demo::run()
{
    _introduce();
    const Interrupts interrupts;
    _perform(interrupts);
    _sumUp();
}

void Demo::_introduce()
{
    const size_t width = _terminal.columns();
    const auto say = [&](const std::string& text, Style style) {
        std::cout << _terminal.styled(clipToWidth(text, width), style) << "\n";
    };
    say(std::string("dxr ") + DXRVersionString() + ": audio devices, found, followed and played together",
        Style::Bold);
    say("A simulated computer: real threads and real time, but no sound hardware.", Style::Dim);
    std::cout << "\n";
    const std::vector<DeviceReport> devices = DeviceReport::readAll(DeviceReport::Hidden::No);
    for (const std::string& row : deviceTable(devices, width, _terminal))
        std::cout << row << "\n";
    std::cout << "\n";
    say("Tone Generator -> IO callback -> ring -> IO callback -> Studio Monitors", Style::Bold);
    say(formatText("%s, cycles of %u frames; meanwhile devices come, change and go.",
                   formatRate(DemoStudio::sampleRate).c_str(), DemoStudio::cycleFrames),
        Style::Dim);
    std::cout << std::endl;
    for (const DeviceWatch::Event& event : _watch.begin())
        if (event.kind == DeviceWatch::Kind::Present)
            _picture.deviceCame(0.0, event.device.uid, event.device.name);
}

void Demo::_perform(const Interrupts& interrupts)
{
    constexpr int tickMilliseconds = 40;
    const auto device = [](const char* uid) {
        const std::optional<DeviceReport> report = DeviceReport::read(QDLAudioDeviceIDFromUID(uid));
        if (!report)
            throw ToolFailure("the simulated computer has lost a device");
        return *report;
    };
    _loop = AudioLoop::initWithDevices(device(DemoStudio::generatorUID), device(DemoStudio::monitorsUID));
    AudioRun run(interrupts);
    _loop->addTo(run);
    if (!run.start())
        return;
    while (!_loop->isFlowing() && run.wait(tickMilliseconds)) {
    }
    _begun = Clock::now();
    while (_now() < _options.seconds && run.wait(tickMilliseconds))
        _tick();
    run.stop();
    _seconds = _now();
    _live.clear();
}

void Demo::_tick()
{
    const auto before = std::chrono::system_clock::now();
    if (const size_t deeds = _script.doWhatIsDue(_now())) {
        _deedsDone += deeds;
        _deedBegun = before;
        _backend->settle(); // so that what follows is what the deed has led to
    }
    _tell(_watch.next());
    _showLevels();
}

void Demo::_tell(const std::vector<DeviceWatch::Event>& events)
{
    for (const DeviceWatch::Event& event : events) {
        const double seconds = _now();
        const Style style = event.kind == DeviceWatch::Kind::Connected      ? Style::Green
                            : event.kind == DeviceWatch::Kind::Disconnected ? Style::Red
                            : event.kind == DeviceWatch::Kind::LostCycles   ? Style::Red
                                                                            : Style::Cyan;
        const std::string time = fitRight(formatSeconds(seconds), 7) + "  ";
        const size_t room = _terminal.columns() - std::min(_terminal.columns(), time.size());
        _live.printAbove(_terminal.styled(time, Style::Dim) +
                         _terminal.styled(clipToWidth(event.text(), room), style));
        _keepInPicture(event, seconds);
        if (_deedBegun) {
            const auto wait = std::chrono::duration<double, std::milli>(event.when - *_deedBegun).count();
            _slowestEventMilliseconds = std::max(_slowestEventMilliseconds, std::max(0.0, wait));
            ++_deedsTold;
            _deedBegun.reset();
        }
    }
}

void Demo::_keepInPicture(const DeviceWatch::Event& event, double seconds)
{
    const std::string& uid = event.device.uid;
    switch (event.kind) {
    case DeviceWatch::Kind::Connected:
        ++_came;
        _picture.deviceCame(seconds, uid, event.device.name);
        break;
    case DeviceWatch::Kind::Disconnected:
        ++_went;
        _picture.deviceGone(seconds, uid);
        break;
    case DeviceWatch::Kind::Changed:
        ++_changed;
        _picture.note(seconds, uid,
                      event.what == "name" ? "now “" + event.device.shortName() + "”" : event.shortText());
        break;
    case DeviceWatch::Kind::LostCycles:
        _picture.note(seconds, uid, "lost cycles");
        break;
    case DeviceWatch::Kind::Default:
        if (event.what != "system output") // it follows the output here
            _picture.note(seconds, uid, "default " + event.what);
        break;
    case DeviceWatch::Kind::Present:
        break;
    }
}

void Demo::_showLevels()
{
    const std::vector<float> input = _loop->inputMeter().takePeaks();
    const std::vector<float> output = _loop->outputMeter().takePeaks();
    const double now = _now();
    const bool hasSound = std::ranges::any_of(output, [](float peak) { return peak > 0.0F; });
    if (hasSound)
        _picture.addLevels(now, input, output);
    const std::string state =
        formatText("%s of %.0f s", formatSeconds(std::min(now, _options.seconds)).c_str(), _options.seconds);
    if (_terminal.isLive()) {
        const size_t width = _terminal.columns() - 1;
        std::vector<std::string> lines = _loop->inputMeter().draw("in", input, width, _terminal);
        std::ranges::move(_loop->outputMeter().draw("out", output, width, _terminal),
                          std::back_inserter(lines));
        lines.push_back(_terminal.styled(
            clipToWidth(
                state + "   " + formatCount(_loop->framesMoved(), "frame", "frames") + " moved, " +
                    formatCount(_loop->inputMonitor().gaps() + _loop->outputMonitor().gaps(), "gap", "gaps"),
                width),
            Style::Dim));
        _live.draw(lines);
    } else if (now >= _nextPlainLevels && output.size() >= 2 && hasSound) {
        _nextPlainLevels = now + 2.0;
        _live.printAbove(fitRight(formatSeconds(now), 7) + "  levels        in " +
                         formatLevel(double{input[0]}) + ", " + formatLevel(double{input[1]}) + "; out " +
                         formatLevel(double{output[0]}) + ", " + formatLevel(double{output[1]}));
    }
}

void Demo::_sumUp()
{
    if (_loop->framesMoved() == 0) {
        std::cout << "Stopped before any sound came through.\n";
        return;
    }
    CycleMonitor& input = _loop->inputMonitor();
    CycleMonitor& output = _loop->outputMonitor();
    const std::vector<float> tone = _studio.playedTone();
    const SineFit fit = SineFit::of(tone, DemoStudio::toneFrequency, DemoStudio::sampleRate);
    const auto say = [&](const char* label, const std::string& value) {
        std::cout << "  " << _terminal.styled(fitLeft(label, 10), Style::Dim)
                  << clipToWidth(value, _terminal.columns() - 12) << "\n";
    };
    const std::string frames = formatCount(_loop->framesMoved(), "frame", "frames");
    const std::string gaps = formatCount(input.gaps() + output.gaps(), "gap", "gaps");
    std::cout << "\n" << _terminal.styled("What was measured", Style::Bold) << "\n";
    say("audio", frames + formatText(" moved in %llu cycles of %u",
                                     static_cast<unsigned long long>(output.cycles()), output.cycleFrames()));
    say("gaps", gaps + ", " + formatCount(input.lostFrames() + output.lostFrames(), "frame", "frames") +
                    " lost, " + formatCount(_loop->underruns(), "underrun", "underruns") + ", " +
                    formatCount(_loop->overruns(), "overrun", "overruns"));
    say("tone",
        formatText("%.0f Hz at %s, signal to noise %.1f dB (worst 0.1 s: %.1f dB)", DemoStudio::toneFrequency,
                   formatLevel(fit.amplitude).c_str(), fit.signalToNoise, fit.worstBlock));
    say("lateness",
        formatText("a cycle began %.2f ms late at most; the ring adds %.1f ms",
                   std::max(input.largestLatenessMilliseconds(), output.largestLatenessMilliseconds()),
                   1000.0 * static_cast<double>(_loop->ringLatencyFrames()) / DemoStudio::sampleRate));
    say("devices", formatText("%zu plugged in, %zu unplugged, %zu values changed; %zu of %zu deeds told,",
                              _came, _went, _changed, _deedsTold, _deedsDone));
    say("", formatText("the slowest after %.1f ms", _slowestEventMilliseconds));
    _savePicture(frames + " moved, " + gaps + formatText(", signal to noise %.1f dB", fit.signalToNoise));
    say("picture", std::filesystem::absolute(_options.picture).lexically_normal().string());
}

void Demo::_savePicture(const std::string& results) const
{
    const std::filesystem::path path(_options.picture);
    std::error_code ignored;
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ignored);
    errno = 0;
    std::ofstream file(path);
    file << _picture.svg(
        _seconds, formatText("dxr demo: %.1f s of audio while devices come and go", _seconds), results);
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
    command->add_option("--seconds", options->seconds, "How long; 10 if not said")
        ->check(CLI::Range(1.0, 600.0));
    command->add_option("--picture", options->picture,
                        "Where the picture of the run goes; out/demo.svg if not said");
    command->add_flag("--simulated", options->isSimulated,
                      "Without effect: the demo's hardware is simulated anyway");
    command->callback([options] { Demo(*options).run(); });
}
