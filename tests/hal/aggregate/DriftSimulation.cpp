#include "DriftSimulation.h"

#include "ClockBridge.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <random>

namespace {

constexpr double originSeconds = 10.0; // of the host clock, so that no stamp is near zero
constexpr size_t maxPoints = 2000;
constexpr double settledAfter = 15.0;

/// A cycle, when it is run: what its thread knows, and what is true.
struct Cycle {
    uint64_t hostNanoseconds;
    uint64_t sampleTime;
    double seconds; ///< when its device's clock was there
};

class Device {
public:
    Device(const DriftingClock& clock, double begin, double lateness)
        : _clock(clock), _next(begin), _median(medianLateness(clock.frameCount) * lateness)
    {}

    double wakes() const { return std::max(_next + _late, _stalledUntil); }
    double ratioAt(double seconds) const
    {
        const double wander =
            _clock.wanderPartsPerMillion * std::sin(2.0 * std::numbers::pi * seconds / _clock.wanderSeconds);
        return 1.0 + (_clock.partsPerMillion + wander) * 1e-6;
    }
    /// Where the clock stands, in frames, shortly before the next cycle: so many frames are behind its converter.
    double frameAt(double seconds) const
    {
        return static_cast<double>(_sampleTime) + _clock.frameCount -
               (_next - seconds) * _clock.rate * ratioAt(seconds);
    }

    template <class Random> Cycle run(Random& random)
    {
        const Cycle cycle{static_cast<uint64_t>((originSeconds + wakes()) * 1e9), _sampleTime, _next};
        _advance(1);
        std::exponential_distribution<double> tail(std::numbers::ln2);
        std::uniform_real_distribution<double> even(0.0, 1.0);
        _late = _median * (0.6 + 0.4 * tail(random));
        if (even(random) < 1.0 / 2000.0)
            _late += even(random) * 0.4e-3 * (_median > 0.0 ? 1.0 : 0.0);
        _stalledUntil += burstSpacing;
        return cycle;
    }

    void meet(const DriftFault& fault)
    {
        switch (fault.kind) {
        case DriftFault::Kind::ThreadStalls:
            _stalledUntil = fault.atSeconds + fault.seconds;
            break;
        case DriftFault::Kind::ClockPauses:
            _next += fault.seconds;
            break;
        case DriftFault::Kind::LosesCycles:
            _advance(static_cast<uint32_t>(fault.seconds * _clock.rate / _clock.frameCount));
            break;
        case DriftFault::Kind::RateChanges:
            _clock.partsPerMillion += fault.partsPerMillion;
            break;
        }
    }

private:
    static constexpr double burstSpacing = 50e-6;

    static double medianLateness(uint32_t frameCount)
    {
        const double along = std::clamp((frameCount - 64.0) / (512.0 - 64.0), 0.0, 1.0);
        return (57.0 + (114.0 - 57.0) * along) * 1e-6;
    }
    void _advance(uint32_t cycles)
    {
        for (; cycles > 0; --cycles) {
            _sampleTime += _clock.frameCount;
            _next += _clock.frameCount / (_clock.rate * ratioAt(_next));
        }
    }

    DriftingClock _clock;
    double _next;
    double _median;
    double _late = 0.0;
    double _stalledUntil = 0.0;
    uint64_t _sampleTime = 0;
};

using Work = std::function<void(const Cycle&)>;

/// Runs the cycles of both devices in the order in which their threads wake.
class Simulation {
public:
    explicit Simulation(const DriftScenario& scenario)
        : writer(scenario.writer, 0.0007, scenario.lateness),
          reader(scenario.reader, 0.0013, scenario.lateness), _scenario(scenario), _random(scenario.seed)
    {}

    void run(const Work& write, const Work& read)
    {
        auto fault = _scenario.faults.begin();
        for (double now = 0.0; now < _scenario.seconds;) {
            now = std::min(writer.wakes(), reader.wakes());
            for (; fault != _scenario.faults.end() && fault->atSeconds <= now; ++fault)
                (fault->isWriter ? writer : reader).meet(*fault);
            if (writer.wakes() <= reader.wakes())
                write(writer.run(_random));
            else
                read(reader.run(_random));
        }
    }

    Device writer, reader;

private:
    const DriftScenario& _scenario;
    std::mt19937_64 _random;
};

/// The figures of a run, from all its points.
void summarise(const std::vector<DriftPoint>& points, double seconds, DriftOutcome& outcome)
{
    double sum = 0.0, squares = 0.0;
    size_t count = 0, errors = 0;
    for (const DriftPoint& point : points) {
        if (point.seconds >= seconds / 2.0) {
            sum += point.delayFrames;
            ++count;
        }
        if (point.seconds >= settledAfter) {
            const double error = point.partsPerMillion - point.truePartsPerMillion;
            squares += error * error;
            ++errors;
        }
    }
    outcome.delayFrames = sum / static_cast<double>(std::max<size_t>(count, 1));
    outcome.ratioErrorRMS = std::sqrt(squares / static_cast<double>(std::max<size_t>(errors, 1)));
    double lastOutside = 0.0;
    bool isSettled = false;
    for (const DriftPoint& point : points) {
        const double away = std::abs(point.delayFrames - outcome.delayFrames);
        if (point.seconds >= settledAfter)
            outcome.wanderFrames = std::max(outcome.wanderFrames, away);
        isSettled = isSettled || point.seconds - lastOutside > 10.0;
        if (!isSettled && away > 0.5)
            lastOutside = point.seconds;
    }
    outcome.settledSeconds = lastOutside;
}

/// The samples of a block less the sine that fits them best; its frequency is found by Newton's method on the phase
/// that is left, which a block is short enough for.
struct BlockFit {
    double signal = 0.0, noise = 0.0; // energies
};

BlockFit fitBlock(const float* samples, size_t count, double radiansPerFrame)
{
    // Columns: sine, cosine, both times the place (a slip of frequency), and one. Normal equations by elimination.
    constexpr size_t columns = 5;
    double m[columns][columns + 1] = {};
    const auto basis = [&](size_t i, double(&row)[columns]) {
        const double place = static_cast<double>(i) / static_cast<double>(count) - 0.5;
        const double phase = radiansPerFrame * static_cast<double>(i);
        row[0] = std::sin(phase), row[1] = std::cos(phase), row[2] = place * row[0], row[3] = place * row[1],
        row[4] = 1.0;
    };
    double row[columns];
    for (size_t i = 0; i < count; ++i) {
        basis(i, row);
        for (size_t a = 0; a < columns; ++a) {
            for (size_t b = 0; b < columns; ++b)
                m[a][b] += row[a] * row[b];
            m[a][columns] += row[a] * static_cast<double>(samples[i]);
        }
    }
    for (size_t a = 0; a < columns; ++a)
        for (size_t b = 0; b < columns; ++b) {
            const double factor = b == a ? 0.0 : m[b][a] / m[a][a];
            for (size_t c = a; b != a && c <= columns; ++c)
                m[b][c] -= factor * m[a][c];
        }
    BlockFit fit;
    for (size_t i = 0; i < count; ++i) {
        basis(i, row);
        double sine = 0.0;
        for (size_t a = 0; a < columns; ++a)
            sine += m[a][columns] / m[a][a] * row[a];
        fit.signal += sine * sine;
        const double rest = static_cast<double>(samples[i]) - sine;
        fit.noise += rest * rest;
    }
    return fit;
}

double decibels(const BlockFit& fit)
{
    return 10.0 * std::log10(fit.signal / std::max(fit.noise, 1e-30));
}

} // namespace

DriftOutcome simulateDrift(const DriftScenario& scenario)
{
    Simulation simulation(scenario);
    DriftController controller({scenario.writer.rate, scenario.reader.rate, scenario.compensates});
    const double nominal = scenario.writer.rate / scenario.reader.rate;
    uint64_t end = 0, first = 0;
    std::vector<DriftPoint> points; // one for each thousandth of a second at most
    double nextPoint = 0.0;
    const double spacing = std::max(0.01, scenario.seconds / 2e6);
    simulation.run(
        [&](const Cycle& cycle) {
            end = cycle.sampleTime + scenario.writer.frameCount;
            controller.wrote({cycle.hostNanoseconds, end, end, scenario.writer.frameCount});
        },
        [&](const Cycle& cycle) {
            const uint32_t frames = scenario.reader.frameCount;
            const ReadPlan plan =
                controller.plan(cycle.hostNanoseconds, cycle.sampleTime, frames, first, end);
            first = plan.releasedFrame;
            if (!controller.isRunning() || cycle.seconds < nextPoint)
                return;
            nextPoint = cycle.seconds + spacing;
            const double position = static_cast<double>(plan.walk.frame) + plan.walk.fraction -
                                    plan.silentFrames * plan.walk.step;
            const double truth =
                simulation.writer.ratioAt(cycle.seconds) / simulation.reader.ratioAt(cycle.seconds);
            points.push_back({cycle.seconds, (plan.walk.step / nominal - 1.0) * 1e6, (truth - 1.0) * 1e6,
                              simulation.writer.frameAt(cycle.seconds) - position, controller.level()});
        });
    DriftOutcome outcome;
    outcome.lostFrames = controller.lostFrames();
    outcome.resynchronisations = controller.resynchronisations();
    summarise(points, scenario.seconds, outcome);
    const size_t step = points.size() / maxPoints + 1;
    for (size_t i = 0; i < points.size(); i += step)
        outcome.points.push_back(points[i]);
    return outcome;
}

DriftTone simulateDriftOfTone(const DriftScenario& scenario, double hertz, double fromSeconds)
{
    Simulation simulation(scenario);
    const CXRef<ClockBridge> bridge =
        ClockBridge::initWithSettings({scenario.writer.rate, scenario.reader.rate, scenario.writer.frameCount,
                                       scenario.reader.frameCount, 1, scenario.compensates});
    std::vector<float> input(scenario.writer.frameCount), block(scenario.reader.frameCount), output;
    const double written = 2.0 * std::numbers::pi * hertz / scenario.writer.rate;
    const double read = 2.0 * std::numbers::pi * hertz / scenario.reader.rate;
    const auto blockFrames = static_cast<size_t>(scenario.reader.rate / 10.0);
    BlockFit all;
    DriftTone tone;
    simulation.run(
        [&](const Cycle& cycle) {
            for (size_t i = 0; i < input.size(); ++i)
                input[i] =
                    static_cast<float>(0.5 * std::sin(written * static_cast<double>(cycle.sampleTime + i)));
            const HALStreamBlock stream{input.data(), 1};
            bridge->write(cycle.hostNanoseconds, cycle.sampleTime, std::span(&stream, 1),
                          scenario.writer.frameCount);
        },
        [&](const Cycle& cycle) {
            const HALStreamBlock stream{block.data(), 1};
            bridge->read(cycle.hostNanoseconds, cycle.sampleTime, std::span(&stream, 1),
                         scenario.reader.frameCount);
            if (cycle.seconds < fromSeconds)
                return;
            output.insert(output.end(), block.begin(), block.end());
            if (output.size() < blockFrames)
                return;
            const double truth =
                simulation.writer.ratioAt(cycle.seconds) / simulation.reader.ratioAt(cycle.seconds);
            const BlockFit fit = fitBlock(output.data(), output.size(), read * truth);
            all.signal += fit.signal;
            all.noise += fit.noise;
            tone.worstBlock =
                tone.worstBlock == 0.0 ? decibels(fit) : std::min(tone.worstBlock, decibels(fit));
            output.clear();
        });
    tone.signalToNoise = decibels(all);
    return tone;
}
