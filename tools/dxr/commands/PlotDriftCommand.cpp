#include "Commands.h"

#include "Chart.h"
#include "DeviceProperties.h"

#include <algorithm>
#include <dxr/CXValue.h>
#include <numbers>

namespace {

// ---- The measurement

struct DriftingClock {
    double rate = 48000.0;        ///< nominal, Hz
    uint32_t frameCount = 512;    ///< frames of a cycle
    double partsPerMillion = 0.0; ///< how much faster than nominal the clock runs
    /// The amplitude and period of a sine that is added to partsPerMillion, as temperature would.
    double wanderPartsPerMillion = 0.0;
    double wanderSeconds = 1200.0;
};

/// An aggregate of two simulated devices: `reader`, its clock device, reads the audio of `source`.
struct DriftScenario {
    DriftingClock source, reader;
    double seconds = 120.0;
    double lateness = 1.0; ///< of time stamps; 1: as on a real server
};

struct DriftPoint {
    double seconds;
    double partsPerMillion;     ///< source's clock against the reader's, as the aggregate measures it
    double truePartsPerMillion; ///< the same as simulated
    double delayFrames;         ///< from the source's clock to the frame read, measured with a signal
    double levelFrames;         ///< frames in the ring buffer

    double error() const { return partsPerMillion - truePartsPerMillion; }
};

struct DriftRun {
    std::vector<DriftPoint> points; ///< up to twenty thousand, at equal intervals
    double settledSeconds = 0.0;    ///< when the delay first stayed within half a frame of its mean for 10 s
    double delayFrames = 0.0;       ///< mean over the second half of the run
    double wanderFrames = 0.0;      ///< maximum distance from that mean, after 15 s
    double ratioErrorRMS = 0.0;     ///< parts per million, after 15 s
    AudioAggregateSubDeviceStatus status{}; ///< of the source, at the end
};

constexpr double settledAfter = 15.0; // seconds
constexpr const char* sourceUID = "drift-source";
constexpr const char* readerUID = "drift-reader";

double ratioAt(const DriftingClock& clock, double seconds)
{
    const double wander =
        clock.wanderPartsPerMillion * std::sin(2.0 * std::numbers::pi * seconds / clock.wanderSeconds);
    return 1.0 + (clock.partsPerMillion + wander) * 1e-6;
}

/// Seconds: as of threads on a real server, 57 us (median) with cycles of 64 frames, 114 us with 512 or more.
double lateness(const DriftingClock& clock)
{
    const double along = std::clamp((clock.frameCount - 64.0) / (512.0 - 64.0), 0.0, 1.0);
    return (57.0 + (114.0 - 57.0) * along) * 1e-6;
}

constexpr double placePeriod = 65536.0; // frames

/// Writes a pair of channels that encodes each frame's number as the angle of a slow rotation, which can be
/// read to a thousandth of a frame after resampling.
void writePlaces(uint64_t firstFrame, uint32_t frameCount, float* pairs)
{
    for (size_t i = 0; i < frameCount; ++i) {
        const double place = std::fmod(static_cast<double>(firstFrame + i), placePeriod);
        const double angle = 2.0 * std::numbers::pi * place / placePeriod;
        pairs[2 * i] = static_cast<float>(0.5 * std::cos(angle));
        pairs[2 * i + 1] = static_cast<float>(0.5 * std::sin(angle));
    }
}

/// The frame's number, modulo placePeriod.
double placeOf(const float* pair)
{
    return std::atan2(pair[1], pair[0]) / (2.0 * std::numbers::pi) * placePeriod;
}

/// The two devices and their running aggregate.
class Pair {
public:
    explicit Pair(const DriftScenario& scenario) : _scenario(scenario)
    {
        HALSetHardwareDriver(_hardware);
        SimulatedDeviceBuilder source = _deviceOf(scenario.source, sourceUID);
        source.inputs(2).hears([this](uint64_t first, uint32_t count, uint32_t, double, float* samples) {
            writePlaces(first, count, samples);
            _sourceFrame = static_cast<double>(first + count);
            _sourceSeconds = seconds();
        });
        _hardware->plug(source);
        _hardware->plug(_deviceOf(scenario.reader, readerUID).outputs(2));
        const AudioDeviceIOBlock cycle = [this](const AudioTimeStamp*, const AudioBufferList* input,
                                                const AudioTimeStamp*, AudioBufferList*,
                                                const AudioTimeStamp*) {
            _measure(static_cast<const float*>(input->buffers[0].data));
        };
        const CXPlist description{{"uid", "drift"},
                                  {"master", readerUID},
                                  {"subdevices", {{{"uid", readerUID}}, {{"uid", sourceUID}}}}};
        if (AudioHardwareCreateAggregateDevice(CXValue::initWithPlist(description).get(), &_aggregate) ||
            AudioDeviceCreateIOProcIDWithBlock(&_proc, _aggregate, nullptr, cycle) ||
            AudioDeviceStart(_aggregate, _proc))
            throw ToolFailure("the two devices cannot be combined");
    }
    ~Pair()
    {
        AudioDeviceStop(_aggregate, _proc);
        AudioDeviceDestroyIOProcID(_aggregate, _proc);
        AudioHardwareDestroyAggregateDevice(_aggregate);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    double seconds() const { return static_cast<double>(_hardware->nowTicks()) * 1e-9; }

    void advance(double step)
    {
        for (const auto& [clock, uid] :
             {std::pair{&_scenario.source, sourceUID}, {&_scenario.reader, readerUID}})
            if (clock->wanderPartsPerMillion != 0.0)
                _hardware->reconfigure(uid, [ratio = ratioAt(*clock, seconds())](auto& device) {
                    device.drift((ratio - 1.0) * 1e6);
                });
        _hardware->advance(static_cast<uint64_t>(step * 1e9));
    }

    /// Frames from the source's clock to the frame read last; null before the first.
    std::optional<double> delayFrames() const { return _delayFrames; }
    AudioAggregateSubDeviceStatus status() const
    {
        const std::vector<AudioAggregateSubDeviceStatus> all = subDeviceStatus(_aggregate);
        return all.size() == 2 ? all[1] : AudioAggregateSubDeviceStatus{};
    }

private:
    SimulatedDeviceBuilder _deviceOf(const DriftingClock& clock, const char* uid) const
    {
        return aDevice()
            .uid(uid)
            .name(uid)
            .sampleRates({clock.rate})
            .sampleRate(clock.rate)
            .bufferFrameSizeRange(8, 8192)
            .bufferFrameSize(clock.frameCount)
            .drift((ratioAt(clock, 0.0) - 1.0) * 1e6)
            .lateness(lateness(clock) * _scenario.lateness);
    }

    /// Measures the frames between the first frame of the cycle and the source's clock.
    void _measure(const float* first)
    {
        if (std::hypot(first[0], first[1]) < 0.49F) // silence, or a fade-in
            return;
        const double now = seconds();
        const double ahead = _sourceFrame +
                             (now - _sourceSeconds) * _scenario.source.rate * ratioAt(_scenario.source, now) -
                             placeOf(first);
        _delayFrames = ahead - placePeriod * std::floor(ahead / placePeriod);
    }

    const DriftScenario& _scenario;
    const CXRef<SimulatedHardware> _hardware = SimulatedHardware::init(SimulatedClock::Stepped);
    AudioObjectID _aggregate = kAudioObjectUnknown;
    AudioDeviceIOProcID _proc = nullptr;
    double _sourceFrame = 0.0, _sourceSeconds = 0.0; // the source's clock in frames, and when it was read
    std::optional<double> _delayFrames;
};

/// Sets the figures of a run of `seconds` from its points.
void sumUp(DriftRun& run, double seconds)
{
    const auto after = [&](double start) {
        return std::span(std::ranges::lower_bound(run.points, start, {}, &DriftPoint::seconds),
                         run.points.end());
    };
    const auto meanAfter = [&](double start, auto value) {
        double sum = 0.0;
        for (const DriftPoint& point : after(start))
            sum += value(point);
        return sum / static_cast<double>(std::max<size_t>(after(start).size(), 1));
    };
    run.delayFrames = meanAfter(seconds / 2.0, [](const DriftPoint& point) { return point.delayFrames; });
    run.ratioErrorRMS = std::sqrt(
        meanAfter(settledAfter, [](const DriftPoint& point) { return std::pow(point.error(), 2.0); }));
    const auto away = [&](const DriftPoint& point) { return std::abs(point.delayFrames - run.delayFrames); };
    for (const DriftPoint& point : after(settledAfter))
        run.wanderFrames = std::max(run.wanderFrames, away(point));
    for (const DriftPoint& point : run.points) {
        if (point.seconds - run.settledSeconds > 10.0)
            break;
        if (away(point) > 0.5)
            run.settledSeconds = point.seconds;
    }
}

/// Runs an aggregate on a stepped clock: an hour takes seconds, and results are repeatable.
DriftRun runDrift(const DriftScenario& scenario)
{
    DriftRun run;
    Pair pair(scenario);
    const double step = std::max(0.05, scenario.seconds / 20000.0);
    const double started = pair.seconds();
    while (pair.seconds() - started < scenario.seconds) {
        pair.advance(step);
        const double now = pair.seconds();
        run.status = pair.status();
        const std::optional<double> delay = pair.delayFrames();
        if (!delay)
            continue;
        const double truth = ratioAt(scenario.source, now) / ratioAt(scenario.reader, now);
        run.points.push_back({now - started, run.status.partsPerMillion, (truth - 1.0) * 1e6, *delay,
                              run.status.inputLevelFrames});
    }
    sumUp(run, scenario.seconds);
    return run;
}

// ---- The picture

std::string describe(const DriftingClock& clock)
{
    std::string all =
        formatText("%+g ppm, %u frames, ", clock.partsPerMillion, clock.frameCount) + formatRate(clock.rate);
    if (clock.wanderPartsPerMillion > 0.0)
        all += formatText(", wandering by %g ppm in %g s", clock.wanderPartsPerMillion, clock.wanderSeconds);
    return all;
}

std::string summary(const DriftRun& run)
{
    return formatText("Settled after %.1f s; delay %.1f frames, varying by up to %.3f; ratio within %.3f ppm "
                      "rms; ",
                      run.settledSeconds, run.delayFrames, run.wanderFrames, run.ratioErrorRMS) +
           formatCount(run.status.lostFrames, "frame") + " lost, " +
           formatCount(run.status.resynchronisations, "resynchronisation");
}

void writeChart(const std::string& file, const DriftScenario& scenario, const DriftRun& run)
{
    constexpr size_t maxPoints = 2000; // for each curve
    constexpr double height = 150.0;
    std::vector<DriftPoint> points;
    const size_t step = run.points.size() / maxPoints + 1;
    for (size_t i = 0; i < run.points.size(); i += step)
        points.push_back(run.points[i]);
    const auto curve = [&](auto value, const char* name = "", const char* colour = "#1f6fb4") {
        return ChartCurve::of(name, colour, points, &DriftPoint::seconds, value);
    };
    const auto delay = [&](const DriftPoint& point) { return point.delayFrames - run.delayFrames; };
    const struct {
        const char* title;
        double minSpan;
        std::vector<ChartCurve> curves;
    } panels[] = {
        {"ratio over nominal, ppm",
         1.0,
         {curve(&DriftPoint::truePartsPerMillion, "true", "#d98b2b"),
          curve(&DriftPoint::partsPerMillion, "found")}},
        {"error of the ratio, ppm", 1.0, {curve(&DriftPoint::error)}},
        {"delay less its mean, frames", 2.0, {curve(delay)}},
        {"level of the ring, frames", 16.0, {curve(&DriftPoint::levelFrames)}},
    };
    Chart chart;
    double top =
        chart.title("From " + describe(scenario.source) + " to " + describe(scenario.reader), summary(run)) +
        16.0;
    for (const auto& [title, minSpan, curves] : panels) {
        const ChartPanel panel(chart, top, height, title, {0.0, scenario.seconds, chartLabel(" s")},
                               ChartAxis::around(curves, minSpan), curves);
        top = panel.bottom() + ChartPanel::below;
    }
    Chart::writeFile(file, chart.svg(top));
}

struct Options {
    DriftScenario scenario;
    std::string file;
};

void plotRun(Options& options)
{
    const DriftRun run = runDrift(options.scenario);
    if (run.points.empty())
        throw ToolFailure("--seconds is too short");
    writeChart(options.file, options.scenario, run);
    std::cout << summary(run) << "\n";
}

} // namespace

void registerPlotDriftCommand(CLI::App& plot)
{
    const auto [command, options] =
        addCommand(plot, "drift", "How devices with different clocks are synchronised", plotRun);
    auto& [source, reader, seconds, lateness] = options.scenario;
    const auto add = [&command = command](const char* name, auto& value, auto min, auto max,
                                          const char* about) {
        command.add_option(name, value, about)->check(numberFrom(min, max));
    };
    add("--ppm", source.partsPerMillion, -1e5, 1e5, "How much faster than nominal the source's clock runs");
    add("--reader-ppm", reader.partsPerMillion, -1e5, 1e5,
        "How much faster than nominal the reader's clock runs");
    add("--wander", source.wanderPartsPerMillion, 0.0, 1000.0, "How far the source's clock wanders, in ppm");
    add("--wander-period", source.wanderSeconds, 10.0, 1e6, "The period of this variation, in seconds");
    add("--frames", source.frameCount, 8, 8192, "Frames of the source's cycle");
    add("--reader-frames", reader.frameCount, 8, 8192, "Frames of the reader's cycle");
    add("--rate", source.rate, 8000.0, 768000.0, "The source's nominal rate, in Hz");
    add("--reader-rate", reader.rate, 8000.0, 768000.0, "The reader's nominal rate, in Hz");
    add("--lateness", lateness, 0.0, 100.0, "How late threads wake up: 1 as on a real server, 0 never");
    add("--seconds", seconds, 1.0, 86400.0, "The simulated duration");
    addRequired(command, "file", options.file, "The SVG file to write; an existing one is replaced");
}
