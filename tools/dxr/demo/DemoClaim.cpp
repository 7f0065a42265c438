#include "DemoClaim.h"

#include "SineFit.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr double minQuality = 80.0;     // dB: far below what can be heard, and far above what a fault leaves
constexpr double spoiledQuality = 50.0; // dB
constexpr double maxSpoiledShare = 0.1; // a busy machine makes any device lose a cycle now and then
constexpr double levelTolerance = 0.02;
constexpr double maxPitchError = 100.0; // ppm: a sixth of a cent, which cannot be heard
constexpr uint64_t settlingTicks =
    700'000'000;                           // after a disturbance, for cycles to come and clocks to be known
constexpr uint64_t endTicks = 150'000'000; // before one: a tenth of a second must not reach into it

double secondsFrom(uint64_t from, uint64_t to)
{
    return static_cast<double>(static_cast<int64_t>(to - from)) * 1e-9;
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

/// How far the sample time of the timer's cycles strays from the clock, from the first to the last of them.
double timerError(std::span<const DXRCycleRecord> cycles, double sampleRate)
{
    double lowest = 0.0, highest = 0.0;
    const DXRCycleRecord* first = nullptr;
    for (const DXRCycleRecord& cycle : cycles) {
        if (cycle.context != Context::Timer)
            continue;
        first = first ? first : &cycle;
        const double error = static_cast<double>(cycle.sampleTime - first->sampleTime) / sampleRate -
                             secondsFrom(first->blocksBeginTicks, cycle.blocksBeginTicks);
        lowest = std::min(lowest, error);
        highest = std::max(highest, error);
    }
    return highest - lowest;
}

/// What an output played of the microphone in all stretches.
struct StretchSound {
    std::vector<double> qualities; // dB, of each tenth of a second
    size_t spoiled = 0;            // of these: something was lost in them
    double pitchError = 0.0;       // ppm, the largest of the others
    bool isAsPromised = true;

    /// Adds a stretch, which must have sound.
    void add(std::span<const DemoTone> tones, DemoStage::Device output, uint64_t from, uint64_t to,
             double amplitude)
    {
        std::vector<double> heard;
        for (const DemoTone& tone : tones) {
            if (tone.output != output || tone.hostTicks < from || tone.hostTicks > to)
                continue;
            heard.push_back(tone.quality);
            if (tone.quality < spoiledQuality) {
                ++spoiled;
                continue;
            }
            isAsPromised = isAsPromised && std::abs(tone.level / amplitude - 1.0) < levelTolerance;
            pitchError = std::max(pitchError, std::abs(tone.pitchError));
        }
        isAsPromised = isAsPromised && !heard.empty() && median(heard) >= minQuality;
        qualities.insert(qualities.end(), heard.begin(), heard.end());
    }
};

StretchSound soundOf(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                     DemoStage::Device output, double amplitude)
{
    StretchSound sound;
    for (const DemoStretch& stretch : stretches)
        if (stretch.isPlugged[DemoStage::Microphone] && stretch.isPlugged[output] &&
            stretch.from + settlingTicks + endTicks < stretch.to)
            sound.add(tones, output, stretch.from + settlingTicks, stretch.to - endTicks, amplitude);
    const auto max = maxSpoiledShare * static_cast<double>(sound.qualities.size());
    sound.isAsPromised = sound.isAsPromised && !sound.qualities.empty() && sound.pitchError < maxPitchError &&
                         static_cast<double>(sound.spoiled) <= max;
    return sound;
}

} // namespace

std::vector<DemoTone> DemoTone::measure(const DemoStage& stage)
{
    constexpr double blockSeconds = 0.1;
    const auto clockOf = [](DemoStage::Device device) {
        return 1.0 + DemoStage::factsOf(device).partsPerMillion * 1e-6;
    };
    std::vector<DemoTone> tones;
    for (const DemoStage::Device output : DemoStage::outputs) {
        const DemoRecording& recording = stage.recordingOf(output);
        const double rate = recording.sampleRate();
        const double frequency = DemoStage::toneFrequency * clockOf(DemoStage::Microphone) / clockOf(output);
        const auto blockFrames = static_cast<size_t>(blockSeconds * rate);
        for (const DemoRecording::Stretch& stretch : recording.stretches())
            for (size_t frame = 0; frame + blockFrames <= stretch.samples.size(); frame += blockFrames) {
                const SineFit fit =
                    SineFit::nearTo(stretch.samples.subspan(frame, blockFrames), frequency, rate);
                const double middle = static_cast<double>(frame) / rate + blockSeconds / 2.0;
                tones.push_back({output, stretch.hostTicks + static_cast<uint64_t>(middle * 1e9),
                                 fit.signalToNoise, fit.amplitude, (fit.frequency / frequency - 1.0) * 1e6});
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
    double cycleSeconds = 0.0; // the longest
    std::ranges::copy_if(records, std::back_inserter(cycles), [](const DXRCycleRecord& record) {
        return record.event == Event::Cycle && record.runnerFrameCount > 0;
    });
    for (const DXRCycleRecord& cycle : cycles)
        cycleSeconds = std::max(cycleSeconds, cycle.runnerFrameCount / sampleRate);
    double longestPause = 0.0, missing = 0.0;
    size_t back = 0, ahead = 0;
    for (size_t i = 1; i < cycles.size(); ++i) {
        const DXRCycleRecord &before = cycles[i - 1], &now = cycles[i];
        const double pause = secondsFrom(before.blocksBeginTicks, now.blocksBeginTicks);
        const double step =
            static_cast<double>(static_cast<int64_t>(now.sampleTime - before.sampleTime)) / sampleRate;
        longestPause = std::max(longestPause, pause);
        back += now.sampleTime < before.sampleTime + before.runnerFrameCount;
        ahead += step > pause + 2.0 * cycleSeconds; // cycles may come in haste after one that was late
    }
    const double error = timerError(cycles, sampleRate);
    if (!cycles.empty())
        missing = secondsFrom(cycles.front().blocksBeginTicks, cycles.back().blocksBeginTicks) -
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
            output == DemoStage::Headphones ? std::pow(volume, 3.0) : 1.0; // as a slider's cube law
        const StretchSound sound = soundOf(tones, stretches, output, DemoStage::toneAmplitude * gain);
        claim.isTrue = claim.isTrue && sound.isAsPromised;
        claim.text +=
            (output == DemoStage::outputs.front() ? "" : "; ") + std::string(DemoStage::factsOf(output).name);
        claim.text +=
            sound.qualities.empty()
                ? std::string(" never")
                : formatText(
                      " %.1f dB above noise, pitch within %.0f ppm, %zu of %zu tenths of a second spoiled",
                      median(sound.qualities), sound.pitchError, sound.spoiled, sound.qualities.size());
    }
    return claim;
}
