#include "DemoClaim.h"

#include "CycleStatistics.h"
#include "SineFit.h"
#include "Text.h"

#include <algorithm>
#include <cmath>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr double minQuality = 80.0;     // dB: errors are inaudible; any fault is far worse
constexpr double spoiledQuality = 50.0; // dB
constexpr double maxSpoiledShare = 0.1; // on a busy machine every device sometimes loses a cycle
constexpr double levelTolerance = 0.02;
constexpr double maxPitchError = 100.0; // ppm: a sixth of a cent, inaudible
// The parts of a stretch that are ignored: at its start, until cycles run and the clocks are measured; at its
// end, where a tenth of a second would extend beyond it.
constexpr uint64_t settlingTicks = 700'000'000, endTicks = 150'000'000;

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

/// The variation of the timer's sample time against the clock, in seconds.
double timerError(std::span<const DXRCycleRecord> cycles, double sampleRate)
{
    double lowest = 0.0, highest = 0.0;
    const DXRCycleRecord* first = nullptr;
    for (const DXRCycleRecord& cycle : cycles) {
        if (cycle.context != Context::Timer)
            continue;
        first = first ? first : &cycle;
        const double error = static_cast<double>(cycle.sampleTime - first->sampleTime) / sampleRate -
                             secondsOf(cycle.blocksBeginTicks - first->blocksBeginTicks);
        lowest = std::min(lowest, error);
        highest = std::max(highest, error);
    }
    return highest - lowest;
}

/// The tones of an output during all stretches.
struct OutputSound {
    std::vector<double> qualities; // dB
    size_t spoiled = 0;            // how many qualities are below spoiledQuality
    double pitchError = 0.0;       // ppm, maximum of the others
    bool isTrue = true;
};

void addStretch(OutputSound& sound, std::span<const DemoTone> tones, DemoStage::Device output, uint64_t from,
                uint64_t to, double amplitude)
{
    std::vector<double> qualities;
    for (const DemoTone& tone : tones) {
        if (tone.output != output || tone.hostTicks < from || tone.hostTicks > to)
            continue;
        qualities.push_back(tone.quality);
        if (tone.quality < spoiledQuality) {
            ++sound.spoiled;
            continue;
        }
        sound.isTrue = sound.isTrue && std::abs(tone.level / amplitude - 1.0) < levelTolerance;
        sound.pitchError = std::max(sound.pitchError, std::abs(tone.pitchError));
    }
    sound.isTrue = sound.isTrue && !qualities.empty() && median(qualities) >= minQuality;
    sound.qualities.insert(sound.qualities.end(), qualities.begin(), qualities.end());
}

OutputSound soundOf(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                    DemoStage::Device output, double amplitude)
{
    OutputSound sound;
    for (const DemoStretch& stretch : stretches)
        if (stretch.isPlugged[DemoStage::Microphone] && stretch.isPlugged[output] &&
            stretch.from + settlingTicks + endTicks < stretch.to)
            addStretch(sound, tones, output, stretch.from + settlingTicks, stretch.to - endTicks, amplitude);
    const auto maxSpoiled = maxSpoiledShare * static_cast<double>(sound.qualities.size());
    sound.isTrue = sound.isTrue && !sound.qualities.empty() && sound.pitchError < maxPitchError &&
                   static_cast<double>(sound.spoiled) <= maxSpoiled;
    return sound;
}

} // namespace

std::vector<DemoTone> DemoTone::measure(const DemoStage& stage)
{
    constexpr auto middleTicks = static_cast<uint64_t>(DemoRecording::blockSeconds / 2.0 * 1e9);
    const auto clockOf = [](DemoStage::Device device) {
        return 1.0 + DemoStage::facts[device].partsPerMillion * 1e-6;
    };
    std::vector<DemoTone> tones;
    for (const DemoStage::Device output : DemoStage::outputs) {
        const DemoRecording& recording = stage.recordingOf(output);
        const double rate = DemoStage::facts[output].sampleRate;
        const double frequency = DemoStage::toneFrequency * clockOf(DemoStage::Microphone) / clockOf(output);
        for (const DemoRecording::Block& block : recording.blocks()) {
            const SineFit fit = SineFit::nearTo(block.samples, frequency, rate);
            tones.push_back({output, block.hostTicks + middleTicks, fit.signalToNoise, fit.amplitude,
                             (fit.frequency / frequency - 1.0) * 1e6});
        }
    }
    return tones;
}

std::vector<DemoStretch> DemoStretch::cut(std::vector<DemoStretch> stretches,
                                          std::span<const DXRCycleRecord> records)
{
    for (const DXRCycleRecord& record : records) {
        if (record.event != Event::ContextStarted)
            continue;
        const auto cut = std::ranges::find_if(stretches, [&](const DemoStretch& stretch) {
            return stretch.from < record.endTicks && record.endTicks < stretch.to;
        });
        if (cut == stretches.end())
            continue;
        DemoStretch after = *cut;
        cut->to = after.from = record.endTicks;
        stretches.insert(cut + 1, after);
    }
    return stretches;
}

DemoClaim DemoClaim::ofTime(std::span<const DXRCycleRecord> records, double sampleRate)
{
    std::vector<DXRCycleRecord> cycles;
    double cycleSeconds = 0.0; // the longest cycle
    std::ranges::copy_if(records, std::back_inserter(cycles), [](const DXRCycleRecord& record) {
        return record.event == Event::Cycle && record.runnerFrameCount > 0;
    });
    for (const DXRCycleRecord& cycle : cycles)
        cycleSeconds = std::max(cycleSeconds, cycle.runnerFrameCount / sampleRate);
    double longestPause = 0.0, missing = 0.0;
    size_t back = 0, ahead = 0;
    for (size_t i = 1; i < cycles.size(); ++i) {
        const DXRCycleRecord &before = cycles[i - 1], &now = cycles[i];
        const double pause = secondsOf(now.blocksBeginTicks - before.blocksBeginTicks);
        const double step =
            static_cast<double>(static_cast<int64_t>(now.sampleTime - before.sampleTime)) / sampleRate;
        longestPause = std::max(longestPause, pause);
        back += now.sampleTime < before.sampleTime + before.runnerFrameCount;
        ahead += step > pause + 2.0 * cycleSeconds; // after a late cycle, the next ones may follow quickly
    }
    const double error = timerError(cycles, sampleRate);
    if (!cycles.empty())
        missing = secondsOf(cycles.back().blocksBeginTicks - cycles.front().blocksBeginTicks) -
                  static_cast<double>(cycles.back().sampleTime - cycles.front().sampleTime) / sampleRate;
    return {
        !cycles.empty() && back == 0 && ahead == 0 && error < 2.0 * cycleSeconds, "time",
        formatText(
            "%zu cycles, %zu back in time, %zu too far ahead; longest pause %.1f ms, %.1f ms missing in all; "
            "the timer within %.1f ms",
            cycles.size(), back, ahead, longestPause * 1e3, missing * 1e3, error * 1e3)};
}

DemoClaim DemoClaim::ofSound(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                             double volume)
{
    DemoClaim claim{true, "sound", "between disturbances: "};
    for (const DemoStage::Device output : DemoStage::outputs) {
        const double gain =
            output == DemoStage::Headphones ? std::pow(volume, 3.0) : 1.0; // a volume control is cubic
        const OutputSound sound = soundOf(tones, stretches, output, DemoStage::toneAmplitude * gain);
        claim.isTrue = claim.isTrue && sound.isTrue;
        claim.text +=
            (output == DemoStage::outputs.front() ? "" : "; ") + std::string(DemoStage::facts[output].name);
        claim.text +=
            sound.qualities.empty()
                ? std::string(" never")
                : formatText(
                      " %.1f dB above noise, pitch within %.0f ppm, %zu of %zu tenths of a second spoiled",
                      median(sound.qualities), sound.pitchError, sound.spoiled, sound.qualities.size());
    }
    return claim;
}
