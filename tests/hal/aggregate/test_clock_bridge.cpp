#include "CXRealtime.h"
#include "ClockBridge.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

namespace {

/// Between two devices of one clock, frames must arrive unchanged, each once and in order, while each
/// of two threads runs its cycles as fast as it can.
TEST(ClockBridge, passesEveryFrameOnceBetweenTwoThreads)
{
    const CXRef<ClockBridge> bridge = ClockBridge::initWithSettings({48000.0, 48000.0, 64, 48, 2, false});
    std::atomic<uint64_t> written{0}, taken{0};
    constexpr uint64_t total = 400'000;
    std::thread writer([&] {
        Random random(3);
        for (uint64_t frame = 1; frame < total;) {
            const uint32_t frames = 1 + random.below(64);
            std::vector<float> samples; // each value is the frame's number, negative in the second channel
            for (uint64_t each = frame; each < frame + frames; ++each) {
                samples.push_back(static_cast<float>(each));
                samples.push_back(-samples.back());
            }
            const HALStreamBlock stream{samples.data(), 2};
            while (frame > taken + 600) // no farther ahead than a clock could be
                std::this_thread::yield();
            {
                const CXRealtimeScope realtime;
                bridge->write(1'000'000'000 + frame * 20833, frame, std::span(&stream, 1), frames);
            }
            written = frame += frames;
        }
    });
    float last = 0.0F;
    uint64_t breaks = 0, silent = 0, wrongPairs = 0;
    std::vector<float> samples(96);
    for (uint64_t frame = 1; frame + 48 < total;) {
        while (frame + 200 > written && written < total)
            std::this_thread::yield();
        const HALStreamBlock stream{samples.data(), 2};
        {
            const CXRealtimeScope realtime;
            bridge->read(1'000'000'000 + frame * 20833, frame, std::span(&stream, 1), 48);
        }
        taken = frame += 48;
        for (size_t i = 0; i < 96; i += 2) {
            wrongPairs += samples[i] != -samples[i + 1];
            silent += samples[i] == 0.0F;
            // Samples in a fade are not integers; frames after it are consecutive again.
            const bool isWhole = samples[i] == std::floor(samples[i]);
            breaks += isWhole && last != 0.0F && samples[i] != last + 1.0F && samples[i] != 0.0F;
            last = isWhole ? samples[i] : 0.0F;
        }
    }
    writer.join();
    EXPECT_EQ(wrongPairs, 0U);
    EXPECT_LE(breaks, bridge->status().resynchronisations + 1U);
    EXPECT_LT(silent, total / 50);
}

TEST(ClockBridge, isSilentBeforeThereIsSoundAndSurvivesCyclesThatDoNotFit)
{
    const CXRef<ClockBridge> bridge = ClockBridge::initWithSettings({48000.0, 48000.0, 64, 64, 2, true});
    std::vector<float> output(128, 5.0F);
    const HALStreamBlock stream{output.data(), 2}, none{nullptr, 2};
    bridge->read(1'000'000'000, 0, std::span(&stream, 1), 64);
    EXPECT_EQ(output, std::vector<float>(128));
    constexpr uint64_t period = 64 * 1'000'000'000ULL / 48000; // ns
    std::vector<float> large(1024, 1.0F);
    const HALStreamBlock tooLong{large.data(), 2};
    bridge->write(1'000'000'000, 0, std::span(&tooLong, 1), 512); // longer than the agreed frame count
    for (uint64_t cycle = 0; cycle < 2000; ++cycle)               // nothing is read: must not overflow
        bridge->write(1'000'000'000 + cycle * period, cycle * 64, std::span(&none, 1), 64);
    for (uint64_t cycle = 1; cycle < 200; ++cycle)
        bridge->read(4'000'000'000 + cycle * period, 190000 + cycle * 64, std::span(&stream, 1), 64);
    EXPECT_EQ(output, std::vector<float>(128));
    EXPECT_FALSE(ClockBridge::initWithSettings({1000.0, 192000.0, 64, 64, 2, true})) << "too far apart";
}

} // namespace
