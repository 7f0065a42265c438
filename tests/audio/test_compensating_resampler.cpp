#include "CXRealtime.h"
#include "CompensatingResampler.h"
#include "InstructionSet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <utility>

namespace {

/// A tone, in each channel at another level.
double tone(double cycles, size_t channel)
{
    return std::sin(2.0 * std::numbers::pi * cycles) / static_cast<double>(channel + 2);
}

// At every ratio, a tone below the output's limit is kept, at the walk's position; one above it is removed.
// Each block goes on where the one before ended, and every instruction set gives the same bits.
TEST(CompensatingResampler, keepsTonesAndRemovesAliases)
{
    constexpr double rows[][3] = {
        // ratio, cycles per input frame, level
        {1.0001, 1.0 / 48, 1.0},       {0.9995, 10.0 / 48, 1.0}, {0.9999, 20.0 / 48, 1.0},
        {44100.0 / 48000.0, 0.4, 1.0}, {0.25, 0.4, 1.0},         {48000.0 / 44100.0, 0.41, 1.0},
        {96000.0 / 44100.0, 0.3, 0.0}, {4.0, 0.09, 1.0},         {4.0, 0.15, 0.0},
    };
    constexpr double stepChange = 1e-8;
    constexpr uint32_t channels = 5;
    constexpr uint64_t wholeArray = ~uint64_t{0};
    for (const auto& [ratio, cyclesPerInputFrame, level] : rows) {
        const auto resampler = CompensatingResampler::initWithRatio(ratio);
        std::vector<float> input[channels];
        const float* planes[channels];
        for (size_t c = 0; c < channels; ++c) {
            for (int i = 0; i < 20'000; ++i)
                input[c].push_back(static_cast<float>(tone(cyclesPerInputFrame * i, c)));
            planes[c] = input[c].data();
        }
        std::vector<float> output;
        for (const InstructionSet& set : availableInstructionSets()) {
            useInstructionSet(set);
            const std::vector<float> others = std::exchange(output, {});
            CompensatingResampler::Walk walk{300, 0.3, ratio, stepChange};
            for (const uint32_t frames : {1U, 127U, 128U, 129U, 3615U}) {
                const size_t begin = output.size();
                output.resize(begin + size_t{frames} * channels);
                const CXRealtimeScope realtime;
                resampler->read({planes, channels, wholeArray}, walk, frames, &output[begin], channels);
                walk = walk.after(frames);
            }
            ASSERT_TRUE(others.empty() || others == output) << set.name << " at " << ratio;
        }
        double worst = 0.0; // relative to the channel's level
        for (size_t i = 0; i < output.size(); ++i) {
            const auto frame = static_cast<double>(i / channels);
            const double place = 300.3 + frame * ratio + frame * (frame - 1) / 2 * stepChange;
            const double wanted = level * tone(cyclesPerInputFrame * place, i % channels);
            const double error = std::abs(static_cast<double>(output[i]) - wanted);
            worst = std::max(worst, error * static_cast<double>(i % channels + 2));
        }
        EXPECT_LT(20.0 * std::log10(worst), -100.0) << ratio << " " << cyclesPerInputFrame;
    }
}

TEST(CompensatingResampler, refusesRatiosThatItHasNoFilterFor)
{
    for (const double ratio : {0.0, -1.0, 33.0, 1.0 / 33.0, std::nan("")})
        EXPECT_FALSE(CompensatingResampler::initWithRatio(ratio)) << ratio;
    EXPECT_TRUE(CompensatingResampler::initWithRatio(CompensatingResampler::maxRatio));
}

} // namespace
