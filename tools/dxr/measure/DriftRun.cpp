#include "DriftRun.h"

#include "DeviceProperties.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <dxr/CXValue.h>
#include <dxr/simulated.h>
#include <numbers>

namespace {

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

/// A pair of channels that encodes each frame's number as the angle of a slow rotation. The number can be
/// read to a thousandth of a frame after resampling.
class PlaceSignal {
public:
    static constexpr double period = 65536.0; // frames

    static void write(uint64_t firstFrame, uint32_t frameCount, float* pairs)
    {
        for (uint32_t i = 0; i < frameCount; ++i) {
            const double angle =
                2.0 * std::numbers::pi * std::fmod(static_cast<double>(firstFrame + i), period) / period;
            pairs[2 * i] = static_cast<float>(0.5 * std::cos(angle));
            pairs[2 * i + 1] = static_cast<float>(0.5 * std::sin(angle));
        }
    }
    /// The frame's number, modulo the period.
    static double placeOf(const float* pair)
    {
        return std::atan2(pair[1], pair[0]) / (2.0 * std::numbers::pi) * period;
    }
};

/// The two devices and their running aggregate.
class Pair {
public:
    explicit Pair(const DriftScenario& scenario) : _scenario(scenario)
    {
        HALSetHardwareDriver(_hardware);
        SimulatedDeviceBuilder source = _deviceOf(scenario.source, sourceUID);
        source.inputs(2).hears([this](uint64_t first, uint32_t count, uint32_t, double, float* samples) {
            PlaceSignal::write(first, count, samples);
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

    bool hasDelay() const { return _hasDelay; }
    double delayFrames() const { return _delayFrames; }
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
                             PlaceSignal::placeOf(first);
        _delayFrames = ahead - PlaceSignal::period * std::floor(ahead / PlaceSignal::period);
        _hasDelay = true;
    }

    const DriftScenario& _scenario;
    const CXRef<SimulatedHardware> _hardware = SimulatedHardware::init(SimulatedClock::Stepped);
    AudioObjectID _aggregate = kAudioObjectUnknown;
    AudioDeviceIOProcID _proc = nullptr;
    double _sourceFrame = 0.0, _sourceSeconds = 0.0; // the source's clock in frames, and when it was read
    double _delayFrames = 0.0;
    bool _hasDelay = false;
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

} // namespace

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
        if (!pair.hasDelay())
            continue;
        const double truth = ratioAt(scenario.source, now) / ratioAt(scenario.reader, now);
        run.points.push_back({now - started, status.partsPerMillion, (truth - 1.0) * 1e6, pair.delayFrames(),
                              status.inputLevelFrames});
    }
    run.figures = figuresOf(run.points, scenario.seconds);
    run.figures.lostFrames = status.lostFrames;
    run.figures.resynchronisations = status.resynchronisations;
    return run;
}
