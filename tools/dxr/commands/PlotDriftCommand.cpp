#include "Commands.h"

#include "Chart.h"
#include "DeviceProperties.h"

#include <algorithm>
#include <cmath>
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

/// Two simulated devices in an aggregate: audio is read from `source` by `reader`, the aggregate's clock
/// device.
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
};

struct DriftFigures {
    double settledSeconds = 0.0; ///< when the delay first stayed within half a frame of its mean for 10 s
    double delayFrames = 0.0;    ///< mean over the second half of the run
    double wanderFrames = 0.0;   ///< maximum distance from that mean, after 15 s
    double ratioErrorRMS = 0.0;  ///< parts per million, after 15 s
    uint64_t lostFrames = 0;
    uint32_t resynchronisations = 0;
};

struct DriftRun {
    std::vector<DriftPoint> points; ///< up to twenty thousand, at equal intervals
    DriftFigures figures;
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

/// Seconds: the median lateness of threads on a real server, 57 microseconds with cycles of 64 frames and 114
/// with 512 or more.
double lateness(const DriftingClock& clock)
{
    const double along = std::clamp((clock.frameCount - 64.0) / (512.0 - 64.0), 0.0, 1.0);
    return (57.0 + (114.0 - 57.0) * along) * 1e-6;
}

constexpr double placePeriod = 65536.0; // frames

/// Writes a pair of channels that encodes each frame's number as the angle of a slow rotation. The number can
/// be read to a thousandth of a frame after resampling.
void writePlaces(uint64_t firstFrame, uint32_t frameCount, float* pairs)
{
    for (uint32_t i = 0; i < frameCount; ++i) {
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

DriftFigures figuresOf(const std::vector<DriftPoint>& points, double seconds)
{
    DriftFigures figures;
    double delays = 0.0, squares = 0.0;
    size_t late = 0, settled = 0;
    for (const DriftPoint& point : points) {
        if (point.seconds >= seconds / 2.0) {
            delays += point.delayFrames;
            ++late;
        }
        if (point.seconds >= settledAfter) {
            squares += std::pow(point.partsPerMillion - point.truePartsPerMillion, 2.0);
            ++settled;
        }
    }
    figures.delayFrames = delays / static_cast<double>(std::max<size_t>(late, 1));
    figures.ratioErrorRMS = std::sqrt(squares / static_cast<double>(std::max<size_t>(settled, 1)));
    bool isSettled = false;
    for (const DriftPoint& point : points) {
        const double away = std::abs(point.delayFrames - figures.delayFrames);
        if (point.seconds >= settledAfter)
            figures.wanderFrames = std::max(figures.wanderFrames, away);
        isSettled = isSettled || point.seconds - figures.settledSeconds > 10.0;
        if (!isSettled && away > 0.5)
            figures.settledSeconds = point.seconds;
    }
    return figures;
}

/// Runs an aggregate of two clocks on a simulated computer with a stepped clock: an hour takes seconds, and
/// results are repeatable. Throws ToolFailure if the aggregate cannot be created.
DriftRun runDrift(const DriftScenario& scenario)
{
    DriftRun run;
    AudioAggregateSubDeviceStatus status;
    Pair pair(scenario);
    const double step = std::max(0.05, scenario.seconds / 20000.0);
    const double started = pair.seconds();
    while (pair.seconds() - started < scenario.seconds) {
        pair.advance(step);
        const double now = pair.seconds();
        status = pair.status();
        const std::optional<double> delay = pair.delayFrames();
        if (!delay)
            continue;
        const double truth = ratioAt(scenario.source, now) / ratioAt(scenario.reader, now);
        run.points.push_back(
            {now - started, status.partsPerMillion, (truth - 1.0) * 1e6, *delay, status.inputLevelFrames});
    }
    run.figures = figuresOf(run.points, scenario.seconds);
    run.figures.lostFrames = status.lostFrames;
    run.figures.resynchronisations = status.resynchronisations;
    return run;
}

// ---- The picture

constexpr const char* foundColour = "#1f6fb4";
constexpr const char* trueColour = "#d98b2b";

struct Curve {
    const char* name;
    const char* colour;
    std::function<double(const DriftPoint&)> value;
};

/// Draws a panel. Returns the y of its bottom.
double draw(Chart& chart, double top, const std::string& title, double minSpan,
            const std::vector<Curve>& curves, const std::vector<DriftPoint>& points, double seconds)
{
    std::vector<double> values;
    std::vector<ChartPanel::Name> names;
    for (const Curve& curve : curves) {
        names.push_back({curve.name, curve.colour});
        for (const DriftPoint& point : points)
            values.push_back(curve.value(point));
    }
    ChartPanel panel(chart, top, 150.0, title, {0.0, seconds, chartLabel(" s")},
                     ChartAxis::around(std::move(values), minSpan), names);
    for (const Curve& curve : curves) {
        std::vector<Chart::Point> line;
        for (const DriftPoint& point : points)
            line.push_back({point.seconds, curve.value(point)});
        panel.curve(line, curve.colour);
    }
    return panel.bottom();
}

std::string describe(const DriftingClock& clock)
{
    std::string all =
        formatText("%+g ppm, %u frames, ", clock.partsPerMillion, clock.frameCount) + formatRate(clock.rate);
    if (clock.wanderPartsPerMillion > 0.0)
        all += formatText(", wandering by %g ppm in %g s", clock.wanderPartsPerMillion, clock.wanderSeconds);
    return all;
}

std::string summary(const DriftFigures& figures)
{
    return formatText("Settled after %.1f s; delay %.1f frames, varying by up to %.3f; ratio within %.3f ppm "
                      "rms; ",
                      figures.settledSeconds, figures.delayFrames, figures.wanderFrames,
                      figures.ratioErrorRMS) +
           formatCount(figures.lostFrames, "frame") + " lost, " +
           formatCount(figures.resynchronisations, "resynchronisation");
}

void writeChart(const std::string& file, const DriftScenario& scenario, const DriftRun& run)
{
    constexpr size_t maxPoints = 2000; // for each curve
    std::vector<DriftPoint> points;
    const size_t step = run.points.size() / maxPoints + 1;
    for (size_t i = 0; i < run.points.size(); i += step)
        points.push_back(run.points[i]);
    const double meanDelay = run.figures.delayFrames;
    const struct {
        const char* title;
        double minSpan;
        std::vector<Curve> curves;
    } panels[] = {
        {"ratio over nominal, ppm",
         1.0,
         {{"true", trueColour, [](const DriftPoint& point) { return point.truePartsPerMillion; }},
          {"found", foundColour, [](const DriftPoint& point) { return point.partsPerMillion; }}}},
        {"error of the ratio, ppm",
         1.0,
         {{"", foundColour,
           [](const DriftPoint& point) { return point.partsPerMillion - point.truePartsPerMillion; }}}},
        {"delay less its mean, frames",
         2.0,
         {{"", foundColour, [=](const DriftPoint& point) { return point.delayFrames - meanDelay; }}}},
        {"level of the ring, frames",
         16.0,
         {{"", foundColour, [](const DriftPoint& point) { return point.levelFrames; }}}},
    };
    Chart chart;
    double top = chart.title("From " + describe(scenario.source) + " to " + describe(scenario.reader),
                             summary(run.figures)) +
                 16.0;
    for (const auto& panel : panels)
        top = draw(chart, top, panel.title, panel.minSpan, panel.curves, points, scenario.seconds) +
              ChartPanel::below;
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
    std::cout << summary(run.figures) << "\n";
}

} // namespace

void registerPlotDriftCommand(CLI::App& plot)
{
    const auto [command, options] =
        addCommand(plot, "drift", "How devices with different clocks are synchronised", plotRun);
    DriftScenario& scenario = options.scenario;
    const auto add = [&command = command](const char* name, auto& value, auto min, auto max,
                                          const char* about) {
        command.add_option(name, value, about)->check(CLI::Range(min, max));
    };
    add("--ppm", scenario.source.partsPerMillion, -1e5, 1e5,
        "How much faster than nominal the source's clock runs");
    add("--reader-ppm", scenario.reader.partsPerMillion, -1e5, 1e5,
        "How much faster than nominal the reader's clock runs");
    add("--wander", scenario.source.wanderPartsPerMillion, 0.0, 1000.0,
        "How far the source's clock wanders, in ppm");
    add("--wander-period", scenario.source.wanderSeconds, 10.0, 1e6,
        "The period of this variation, in seconds");
    add("--frames", scenario.source.frameCount, 8, 8192, "Frames of the source's cycle");
    add("--reader-frames", scenario.reader.frameCount, 8, 8192, "Frames of the reader's cycle");
    add("--rate", scenario.source.rate, 8000.0, 768000.0, "The source's nominal rate, in Hz");
    add("--reader-rate", scenario.reader.rate, 8000.0, 768000.0, "The reader's nominal rate, in Hz");
    add("--lateness", scenario.lateness, 0.0, 100.0,
        "How late threads wake up: 1 as on a real server, 0 never");
    add("--seconds", scenario.seconds, 1.0, 86400.0, "The simulated duration");
    command.add_option("file", options.file, "The SVG file to write; an existing one is replaced")
        ->required();
}
