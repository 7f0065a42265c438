#include "DemoClaim.h"

#include "DemoEngine.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double cycleSeconds = DemoEngine::frameCount / DemoEngine::sampleRate;
constexpr double leastQuality = 80.0;   // dB: far below what the ear tells, and far above what a fault leaves
constexpr double spoiledQuality = 50.0; // dB
constexpr double mostSpoiledShare = 0.1; // a busy machine makes any device lose a cycle now and then
constexpr double levelTolerance = 0.02;
constexpr double mostPitchError = 100.0; // ppm: a sixth of a cent, which nobody hears
constexpr double settlingSeconds = 0.7;  // after a disturbance, for cycles to come and clocks to be known
constexpr double noticeSeconds = 0.15;   // from a disturbance until the context is seen to be another

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

/// How far the sample time of the timer's cycles strays from the clock, from the first to the last of them.
double timerError(const DemoHistory& history)
{
    double least = 0.0, most = 0.0;
    const DemoHistory::Cycle* first = nullptr;
    for (const DemoHistory::Cycle& cycle : history.cycles) {
        const DemoHistory::Context* const context = history.contextAt(cycle.seconds);
        const bool isTimers = context && context->deviceCount == 0;
        if (isTimers && !first)
            first = &cycle;
        if (!isTimers)
            continue;
        const double error = (cycle.sampleSeconds - first->sampleSeconds) - (cycle.seconds - first->seconds);
        least = std::min(least, error);
        most = std::max(most, error);
    }
    return most - least;
}

/// What an output played of the microphone, at times when nothing came or went.
struct QuietSound {
    std::vector<double> qualities; // dB, of each tenth of a second
    size_t spoiled = 0;            // of these: something was lost in them
    double pitchError = 0.0;       // ppm, the largest of the others
    bool isAsPromised = true;

    void addTime(const DemoHistory& history, DemoStage::Device output, double from, double to,
                 double amplitude);
};

/// Adds one such time, which must have sound.
void QuietSound::addTime(const DemoHistory& history, DemoStage::Device output, double from, double to,
                         double amplitude)
{
    std::vector<double> own, heard;
    for (const DemoHistory::Tone& tone : history.tones) {
        if (tone.device != output || tone.seconds < from || tone.seconds > to)
            continue;
        heard.push_back(tone.quality[0]);
        own.push_back(tone.quality[1]);
        if (tone.quality[0] < spoiledQuality) {
            ++spoiled;
            continue;
        }
        isAsPromised = isAsPromised && std::abs(tone.level / amplitude - 1.0) < levelTolerance;
        pitchError = std::max(pitchError, std::abs(tone.pitchError));
    }
    isAsPromised =
        isAsPromised && !heard.empty() && median(heard) >= leastQuality && median(own) >= leastQuality;
    qualities.insert(qualities.end(), heard.begin(), heard.end());
}

QuietSound quietSound(const DemoHistory& history, DemoStage::Device output, double amplitude)
{
    QuietSound sound;
    for (size_t i = 0; i < history.contexts.size(); ++i) {
        const bool isLast = i + 1 == history.contexts.size();
        const double from = history.contexts[i].seconds + settlingSeconds;
        const double to = (isLast ? history.seconds : history.contexts[i + 1].seconds) - noticeSeconds;
        if (from < to && history.isThere(DemoStage::Microphone, from) && history.isThere(output, from) &&
            history.isThere(output, to))
            sound.addTime(history, output, from, to, amplitude);
    }
    const auto most = mostSpoiledShare * static_cast<double>(sound.qualities.size());
    sound.isAsPromised = sound.isAsPromised && !sound.qualities.empty() &&
                         sound.pitchError < mostPitchError && static_cast<double>(sound.spoiled) <= most;
    return sound;
}

} // namespace

DemoClaim DemoClaim::ofTime(const DemoHistory& history)
{
    double longestPause = 0.0, missing = 0.0;
    size_t back = 0, ahead = 0;
    for (size_t i = 1; i < history.cycles.size(); ++i) {
        const DemoHistory::Cycle &before = history.cycles[i - 1], &now = history.cycles[i];
        const double pause = now.seconds - before.seconds;
        const double step = now.sampleSeconds - before.sampleSeconds;
        longestPause = std::max(longestPause, pause);
        back += step < cycleSeconds / 2.0;
        ahead += step > pause + 2.0 * cycleSeconds; // cycles may come in haste after one that was late
    }
    const double error = timerError(history);
    if (!history.cycles.empty())
        missing = (history.cycles.back().seconds - history.cycles.front().seconds) -
                  (history.cycles.back().sampleSeconds - history.cycles.front().sampleSeconds);
    return {!history.cycles.empty() && back == 0 && ahead == 0 && error < 2.0 * cycleSeconds, "time",
            formatText(
                "%zu cycles, none back in time, none too far ahead; longest pause %.1f ms, %.1f ms missing "
                "in all; the timer within %.1f ms",
                history.cycles.size(), longestPause * 1e3, missing * 1e3, error * 1e3)};
}

DemoClaim DemoClaim::ofSound(const DemoHistory& history, double volume)
{
    DemoClaim claim{true, "sound", "between disturbances: "};
    for (const DemoStage::Device output : DemoStage::outputs) {
        const double gain =
            output == DemoStage::Headphones ? std::pow(volume, 3.0) : 1.0; // as a slider's cube law
        const QuietSound sound = quietSound(history, output, DemoStage::toneAmplitude * gain);
        claim.isTrue = claim.isTrue && sound.isAsPromised;
        claim.text +=
            (output == DemoStage::outputs.front() ? "" : "; ") + std::string(DemoStage::factsOf(output).name);
        if (sound.qualities.empty()) {
            claim.text += " never";
            continue;
        }
        claim.text +=
            formatText(" %.1f dB above noise, pitch within %.0f ppm, %zu of %zu tenths of a second spoiled",
                       median(sound.qualities), sound.pitchError, sound.spoiled, sound.qualities.size());
    }
    return claim;
}
