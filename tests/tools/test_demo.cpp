#include "DemoClaim.h"

#include <gtest/gtest.h>

namespace {

using enum DemoStage::Device;
using Context = DXRCycleRecord::Context;

constexpr uint64_t second = 1'000'000'000;

TEST(DemoClaim, ofTimeIsRefutedByEachFault)
{
    const struct {
        const char* why;
        void (*spoil)(DXRCycleRecord& cycle);
        bool isGood;
    } rows[] = {
        {"a pause, and time that waits for it",
         [](DXRCycleRecord& it) { it.blocksBeginTicks += it.blocksBeginTicks > second ? second / 20 : 0; },
         true},
        {"a cycle comes twice", [](DXRCycleRecord& it) { it.sampleTime -= it.sampleTime == 25600 ? 512 : 0; },
         false},
        {"time runs ahead", [](DXRCycleRecord& it) { it.sampleTime += it.sampleTime > 50000 ? 4800 : 0; },
         false},
        {"the timer loses time",
         [](DXRCycleRecord& it) {
             it.blocksBeginTicks += it.blocksBeginTicks > 3 * second ? second / 10 : 0;
         },
         false},
    };
    for (const auto& row : rows) {
        std::vector<DXRCycleRecord> records(500); // of 512 frames at 48 kHz; from second 2 on by the timer
        for (uint64_t i = 0; i < records.size(); ++i) {
            records[i].frameCount = records[i].runnerFrameCount = 512;
            records[i].sampleTime = 512 * i;
            records[i].blocksBeginTicks = 512 * i * second / 48000;
            records[i].context =
                records[i].blocksBeginTicks > 2 * second ? Context::Timer : Context::Aggregate;
            row.spoil(records[i]);
        }
        EXPECT_EQ(DemoClaim::ofTime(records, 48000).isTrue, row.isGood) << row.why;
    }
}

TEST(DemoClaim, ofSoundIsRefutedByEachFault)
{
    // The headphones are unplugged from second 3 to 5; at second 10 a context starts.
    const std::vector<DemoStretch> stretches{{0, 3 * second, {true, true, true}},
                                             {3 * second, 5 * second, {true, true, false}},
                                             {5 * second, 12 * second, {true, true, true}}};
    std::vector<DXRCycleRecord> records(1);
    records[0].event = DXRCycleRecord::Event::ContextStarted;
    records[0].endTicks = 10 * second;
    const struct {
        const char* why;
        void (*spoil)(DemoTone& tone, double seconds);
        bool isGood;
    } rows[] = {
        {"noise where a context starts, which is not judged",
         [](DemoTone& tone, double at) { tone.quality = at > 9.85 && at < 10.7 ? 5 : tone.quality; }, true},
        {"a lost cycle now and then",
         [](DemoTone& tone, double at) { tone.quality = at > 1.5 && at < 1.6 ? 5 : tone.quality; }, true},
        {"many", [](DemoTone& tone, double at) { tone.quality = at > 6 && at < 7.3 ? 5 : tone.quality; },
         false},
        {"noise", [](DemoTone& tone, double) { tone.quality = 70; }, false},
        {"an output stays silent when it is back",
         [](DemoTone& tone, double at) { tone.hostTicks *= tone.output == Headphones && at > 5 ? 0 : 1; },
         false},
        {"the volume is not what was remembered",
         [](DemoTone& tone, double at) { tone.level *= at > 8 && at < 9 ? 1.1 : 1.0; }, false},
        {"out of tune", [](DemoTone& tone, double at) { tone.pitchError = at > 1 && at < 2 ? -1000 : 5; },
         false},
    };
    for (const auto& row : rows) {
        std::vector<DemoTone> tones;
        for (uint64_t ticks = second / 20; ticks < 12 * second; ticks += second / 10)
            for (const DemoStage::Device output : DemoStage::outputs)
                if (output == Monitors || ticks < 3 * second || ticks > 5 * second)
                    row.spoil(
                        tones.emplace_back(output, ticks, 100, output == Monitors ? 0.5 : 0.5 * 0.216, 5),
                        static_cast<double>(ticks) / second);
        EXPECT_EQ(DemoClaim::ofSound(tones, DemoStretch::cut(stretches, records), 0.6).isTrue, row.isGood)
            << row.why;
    }
}

} // namespace
