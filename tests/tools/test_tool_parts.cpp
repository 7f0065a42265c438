#include "FrameRing.h"
#include "SineFit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <thread>

namespace {

TEST(FrameRing, handsEveryFrameOverInOrderBetweenTwoThreads)
{
    constexpr uint64_t total = 300'000;
    FrameRing ring(2, 61);
    std::thread writer([&ring] {
        for (uint64_t written = 0; written < total;) {
            const uint64_t count = std::min({ring.writableFrames(), total - written, written % 29 + 1});
            for (uint64_t i = 0; i < count; ++i) {
                ring.frameToWrite(i)[0] = static_cast<float>(written + i);
                ring.frameToWrite(i)[1] = -static_cast<float>(written + i);
            }
            ring.commitWrite(count);
            written += count;
            if (count == 0)
                std::this_thread::yield();
        }
    });
    uint64_t wrong = 0;
    for (uint64_t read = 0; read < total;) {
        const uint64_t count = std::min(ring.readableFrames(), read % 31 + 1);
        for (uint64_t i = 0; i < count; ++i)
            wrong += ring.frameToRead(i)[0] != static_cast<float>(read + i) ||
                     ring.frameToRead(i)[1] != -static_cast<float>(read + i);
        ring.commitRead(count);
        read += count;
        if (count == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_EQ(wrong, 0U);
}

TEST(SineFit, measuresNoiseThatIsThereAndNoneThatIsNot)
{
    std::vector<float> tone(48000);
    const auto fit = [&tone](double noise) {
        uint32_t random = 1;
        for (size_t i = 0; i < tone.size(); ++i) {
            random = random * 1664525 + 1013904223;
            tone[i] = static_cast<float>(
                0.5 * std::sin(2 * std::numbers::pi * 997 * static_cast<double>(i) / 48000 + 1.0) +
                noise * (random / 2147483648.0 - 1.0));
        }
        return SineFit::of(std::vector<double>(tone.begin(), tone.end()), 997, 48000);
    };
    // Uniform noise of 0.001 has an energy of 0.001² / 3.
    EXPECT_NEAR(fit(0.001).signalToNoise, 10 * std::log10(0.125 * 3 / 1e-6), 0.2);
    EXPECT_GT(fit(0.0).signalToNoise, 140.0);
    EXPECT_NEAR(fit(0.0).amplitude, 0.5, 1e-6);
    EXPECT_EQ(SineFit::of({}, 997, 48000).signalToNoise, 0.0);
    const SineFit found = SineFit::nearTo(std::span(tone).first(4800), 997.2, 48000);
    EXPECT_NEAR(found.frequency, 997, 1e-5);
    EXPECT_GT(found.signalToNoise, 120.0);
}

} // namespace
