// What does rate conversion cost per frame, compared with the best peers, at the block lengths of real
// devices? And what is its quality: the signal-to-noise ratio of a tone?

#include "Contest.h"
#include "Resamplers.h"
#include "ToneFit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <numbers>

namespace {

struct Rates {
    uint32_t in, out;
};
constexpr Rates allRates[] = {{44100, 48000}, {48000, 44100}, {48000, 96000}, {8000, 192000}};

std::string text(Rates rates)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%g to %g kHz", rates.in / 1000.0, rates.out / 1000.0);
    return buffer;
}

void printSpeed(Rates rates)
{
    FigureTable table(text(rates) + ": ns per output frame and channel");
    for (const uint32_t channels : {1U, 2U, 8U})
        for (const uint32_t frames : {64U, 512U}) {
            std::vector<float> input(size_t{frames} * channels), output(size_t{1 << 16} * channels);
            for (size_t i = 0; i < input.size(); ++i)
                input[i] =
                    static_cast<float>(std::sin(0.02 * static_cast<double>(i / channels + i % channels)));
            Contest contest;
            std::vector<std::unique_ptr<Resampler>> resamplers;
            for (const ResamplerKind& kind : resamplerKinds()) {
                resamplers.push_back(kind.make(rates.in, rates.out, channels));
                contest.add(kind.name, [&, resampler = resamplers.back().get()] {
                    return uint64_t{resampler->convert(input.data(), frames, output.data())} * channels;
                });
            }
            table.addColumn(std::to_string(channels) + "ch x " + std::to_string(frames), contest.names(),
                            contest.run());
        }
    table.print("libswresample, 8 taps");
}

void printQuality(Rates rates)
{
    constexpr uint32_t block = 512;
    FigureTable table(text(rates) + ": signal-to-noise ratio of a tone, dB");
    std::vector<std::string> names;
    std::vector<ResamplerKind> kinds;
    std::ranges::copy_if(resamplerKinds(), std::back_inserter(kinds), &ResamplerKind::converts);
    for (const ResamplerKind& kind : kinds)
        names.push_back(kind.name);
    for (const double hertz : {100.0, 1000.0, 5000.0, 10000.0, 15000.0}) {
        std::vector<double> figures;
        for (const ResamplerKind& kind : kinds) {
            if (hertz >= rates.in / 2.0) {
                figures.push_back(std::nan(""));
                continue;
            }
            const auto resampler = kind.make(rates.in, rates.out, 1);
            std::vector<float> input(block), output(1 << 16), all;
            for (uint64_t fed = 0; fed < 40 * block;) {
                for (float& sample : input)
                    sample = static_cast<float>(
                        0.5 * std::sin(2 * std::numbers::pi * hertz / rates.in * static_cast<double>(fed++)));
                const uint32_t made = resampler->convert(input.data(), block, output.data());
                all.insert(all.end(), output.begin(), output.begin() + made);
            }
            all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(all.size() / 4)); // the start
            figures.push_back(signalToNoise(all, 2 * std::numbers::pi * hertz / rates.out));
        }
        table.addColumn(std::to_string(static_cast<int>(hertz)) + " Hz", names, figures);
    }
    table.print("", 1);
}

} // namespace

int main()
{
    for (const Rates rates : allRates)
        printSpeed(rates);
    for (const Rates rates : allRates)
        printQuality(rates);
}
