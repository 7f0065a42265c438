#include "DemoClaim.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using enum DemoStage::Device;
using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

constexpr uint64_t second = 1'000'000'000;

/// A correct run of 12 s: the headphones are unplugged from second 3 to 5, all devices from 7 to 9.
struct DemoRun {
    std::vector<DXRCycleRecord> records;
    std::vector<DemoTone> tones;
    std::vector<DemoStretch> stretches{{0, 3 * second, {true, true, true}},
                                       {3 * second, 5 * second, {true, true, false}},
                                       {5 * second, 7 * second, {true, true, true}},
                                       {7 * second, 9 * second, {false, false, false}},
                                       {9 * second, 12 * second, {true, true, true}}};

    DemoRun()
    {
        for (uint64_t i = 0; i < 1125; ++i) {
            DXRCycleRecord& cycle = records.emplace_back();
            cycle.frameCount = cycle.runnerFrameCount = 512;
            cycle.sampleTime = 512 * i;
            cycle.blocksBeginTicks = cycle.sampleTime * second / 48000;
            const bool isTimer = cycle.blocksBeginTicks > 7 * second && cycle.blocksBeginTicks < 9 * second;
            cycle.context = isTimer ? Context::Timer : Context::Aggregate;
        }
        for (uint64_t ticks = second / 20; ticks < 12 * second; ticks += second / 10)
            for (const DemoStretch& stretch : stretches)
                for (const DemoStage::Device output : DemoStage::outputs)
                    if (stretch.from <= ticks && ticks < stretch.to && stretch.isPlugged[output])
                        tones.push_back({output, ticks, 100, output == Monitors ? 0.5 : 0.5 * 0.216, 5});
    }
    void pauseAt(uint64_t from, uint64_t ticks)
    {
        for (DXRCycleRecord& cycle : records)
            cycle.blocksBeginTicks += cycle.blocksBeginTicks > from ? ticks : 0;
    }
    void setQuality(uint64_t from, uint64_t to, double quality)
    {
        for (DemoTone& tone : tones)
            tone.quality = from < tone.hostTicks && tone.hostTicks < to ? quality : tone.quality;
    }
};

TEST(DemoClaim, isRefutedByEachFault)
{
    struct {
        const char* why;
        std::function<void(DemoRun&)> spoil;
        bool isTimeGood, isSoundGood;
    } const rows[] = {
        {"a cycle comes twice", [](DemoRun& run) { run.records[50].sampleTime -= 512; }, false, true},
        {"time runs ahead", [](DemoRun& run) { run.records.back().sampleTime += 4800; }, false, true},
        {"a pause, and time that waits for it", [](DemoRun& run) { run.pauseAt(2 * second, second / 20); },
         true, true},
        {"the timer loses time", [](DemoRun& run) { run.pauseAt(8 * second, second / 10); }, false, true},
        {"no cycle", [](DemoRun& run) { run.records.clear(); }, false, true},
        {"an output stays silent when it is back",
         [](DemoRun& run) {
             std::erase_if(run.tones, [](const DemoTone& tone) {
                 return tone.output == Headphones && tone.hostTicks > 9 * second;
             });
         },
         true, false},
        {"noise", [](DemoRun& run) { run.setQuality(0, 12 * second, 70.0); }, true, false},
        {"the volume is not what was remembered",
         [](DemoRun& run) { run.tones[run.tones.size() - 10].level *= 1.1; }, true, false},
        {"out of tune", [](DemoRun& run) { run.tones[40].pitchError = -1000.0; }, true, false},
        {"a lost cycle now and then", [](DemoRun& run) { run.tones[40].quality = 5; }, true, true},
        {"noise where a context starts, which is not judged",
         [](DemoRun& run) {
             run.records.emplace_back().event = Event::ContextStarted;
             run.records.back().endTicks = 10 * second;
             run.setQuality(9'850'000'000, 10'700'000'000, 5);
         },
         true, true},
    };
    for (const auto& row : rows) {
        DemoRun run;
        row.spoil(run);
        EXPECT_EQ(DemoClaim::ofTime(run.records, 48000).isTrue, row.isTimeGood) << row.why;
        const std::vector<DemoStretch> cut = DemoStretch::cut(run.stretches, run.records);
        EXPECT_EQ(DemoClaim::ofSound(run.tones, cut, 0.6).isTrue, row.isSoundGood) << row.why;
    }
}

} // namespace
