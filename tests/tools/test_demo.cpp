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
        double from; // seconds
        void (*spoil)(DXRCycleRecord& cycle);
        bool isGood;
    } rows[] = {
        {"a pause, as time shows", 1, [](DXRCycleRecord& it) { it.blocksBeginTicks += second / 20; }, true},
        {"the timer loses time", 3, [](DXRCycleRecord& it) { it.blocksBeginTicks += second / 10; }, false},
        {"time runs ahead", 1, [](DXRCycleRecord& it) { it.sampleTime += 4800; }, false},
        {"cycles come twice", 1, [](DXRCycleRecord& it) { it.sampleTime -= 512; }, false},
    };
    for (const auto& row : rows) {
        std::vector<DXRCycleRecord> records(500); // of 512 frames at 48 kHz; from second 2 on by the timer
        for (uint64_t i = 0; i < records.size(); ++i) {
            const double seconds = 512.0 * static_cast<double>(i) / 48000;
            records[i].frameCount = records[i].runnerFrameCount = 512;
            records[i].sampleTime = 512 * i;
            records[i].blocksBeginTicks = static_cast<uint64_t>(seconds * second);
            records[i].context = seconds > 2 ? Context::Timer : Context::Aggregate;
            if (seconds > row.from)
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
        double from, to; // seconds
        void (*spoil)(DemoTone& tone);
        bool isGood;
    } rows[] = {
        {"a start, which is not judged", 9.85, 10.7, [](DemoTone& it) { it.quality = 5; }, true},
        {"a lost cycle now and then", 1.5, 1.6, [](DemoTone& it) { it.quality = 5; }, true},
        {"many", 6, 7.3, [](DemoTone& it) { it.quality = 5; }, false},
        {"noise", 0, 12, [](DemoTone& it) { it.quality = 70; }, false},
        {"silence when it is back", 5, 10, [](DemoTone& it) { it.hostTicks = 0; }, false},
        {"not the remembered volume", 8, 9, [](DemoTone& it) { it.level *= 1.1; }, false},
        {"out of tune", 1, 2, [](DemoTone& it) { it.pitchError = -1000; }, false},
    };
    for (const auto& row : rows) {
        std::vector<DemoTone> tones;
        for (uint64_t i = 0; i < 240; ++i) {
            const double seconds = 0.05 + 0.1 * static_cast<double>(i / 2);
            DemoTone tone{Monitors, static_cast<uint64_t>(seconds * second), 100, 0.5, 5};
            if (i % 2 != 0)
                tone = {Headphones, tone.hostTicks, 100, 0.5 * 0.216, 5};
            if (row.from < seconds && seconds < row.to)
                row.spoil(tone);
            if (i % 2 == 0 || seconds < 3 || seconds > 5)
                tones.push_back(tone);
        }
        const std::vector<DemoStretch> cut = DemoStretch::cut(stretches, records);
        EXPECT_EQ(DemoClaim::ofSound(tones, cut, 0.6).isTrue, row.isGood) << row.why;
    }
}

} // namespace
