#include "DemoHistory.h"

#include "DemoEngine.h"
#include "SineFit.h"

#include <algorithm>

const DemoHistory::Context* DemoHistory::contextAt(double when) const
{
    const auto later = std::ranges::upper_bound(contexts, when, {}, &Context::seconds);
    return later == contexts.begin() ? nullptr : &*std::prev(later);
}

bool DemoHistory::isThere(DemoStage::Device device, double when) const
{
    return std::ranges::any_of(presences, [=](const Presence& each) {
        return each.device == device && each.from <= when && (each.to < 0.0 || when < each.to);
    });
}

void DemoHistory::addTones(DemoStage::Device output, const DemoRecording& recording, uint64_t begunTicks)
{
    constexpr double blockSeconds = 0.1;
    const auto clockOf = [](DemoStage::Device device) {
        return 1.0 + DemoStage::factsOf(device).partsPerMillion * 1e-6;
    };
    const double microphoneClock = clockOf(DemoStage::Microphone), clock = clockOf(output);
    const double rate = recording.sampleRate();
    const auto blockFrames = static_cast<size_t>(blockSeconds * rate);
    std::vector<float> samples(blockFrames);
    for (const DemoRecording::Stretch& stretch : recording.stretches()) {
        const double from = static_cast<double>(static_cast<int64_t>(stretch.hostTicks - begunTicks)) * 1e-9;
        for (size_t frame = 0; frame + blockFrames <= stretch.frames.size(); frame += blockFrames) {
            Tone tone{from + (static_cast<double>(frame) / rate + blockSeconds / 2.0), output, {}, 0.0, 0.0};
            for (size_t channel = 0; channel < tone.quality.size(); ++channel) {
                for (size_t k = 0; k < blockFrames; ++k)
                    samples[k] = stretch.frames[frame + k][channel];
                const bool isOwn = channel == 1;
                const double frequency =
                    (isOwn ? DemoEngine::toneFrequency : DemoStage::toneFrequency * microphoneClock) / clock;
                const SineFit fit = SineFit::nearTo(samples, frequency, rate);
                tone.quality[channel] = fit.signalToNoise;
                if (!isOwn) {
                    tone.level = fit.amplitude;
                    tone.pitchError = (fit.frequency / frequency - 1.0) * 1e6;
                }
            }
            tones.push_back(tone);
        }
    }
}
