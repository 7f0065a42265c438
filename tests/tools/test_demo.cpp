#include "DemoClaim.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using enum DemoStage::Device;
using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

constexpr uint64_t second = 1'000'000'000;
constexpr double rate = 48000.0;

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
            DXRCycleRecord cycle;
            cycle.frameCount = cycle.runnerFrameCount = 512;
            cycle.sampleTime = 512 * i;
            cycle.blocksBeginTicks = cycle.sampleTime * second / 48000;
            const bool isTimer = cycle.blocksBeginTicks > 7 * second && cycle.blocksBeginTicks < 9 * second;
            cycle.context = isTimer ? Context::Timer : Context::Aggregate;
            records.push_back(cycle);
        }
        for (uint64_t ticks = second / 20; ticks < 12 * second; ticks += second / 10)
            for (const DemoStretch& stretch : stretches)
                for (const DemoStage::Device output : DemoStage::outputs)
                    if (stretch.from <= ticks && ticks < stretch.to && stretch.isPlugged[output])
                        tones.push_back({output, ticks, 100, output == Monitors ? 0.5 : 0.5 * 0.216, 5});
    }
};

TEST(DemoClaim, isRefutedByEachFault)
{
    struct {
        const char* why;
        std::function<void(DemoRun&)> spoil;
        bool isTimeGood, isSoundGood;
    } const rows[] = {
        {"nothing", [](DemoRun&) {}, true, true},
        {"a cycle comes twice", [](DemoRun& run) { run.records[50].sampleTime = run.records[49].sampleTime; },
         false, true},
        {"time runs ahead", [](DemoRun& run) { run.records.back().sampleTime += 4800; }, false, true},
        {"a pause, and time that waits for it",
         [](DemoRun& run) {
             for (size_t i = 200; i < run.records.size(); ++i)
                 run.records[i].blocksBeginTicks += second / 20;
         },
         true, true},
        {"the timer loses time",
         [](DemoRun& run) {
             for (DXRCycleRecord& cycle : run.records)
                 if (cycle.blocksBeginTicks > 8 * second)
                     cycle.blocksBeginTicks += second / 10;
         },
         false, true},
        {"no cycle", [](DemoRun& run) { run.records.clear(); }, false, true},
        {"an output is silent",
         [](DemoRun& run) {
             std::erase_if(run.tones, [](const DemoTone& tone) { return tone.output == Headphones; });
         },
         true, false},
        {"one stays silent when it is back",
         [](DemoRun& run) {
             std::erase_if(run.tones, [](const DemoTone& tone) { return tone.hostTicks > 9 * second; });
         },
         true, false},
        {"noise",
         [](DemoRun& run) {
             for (DemoTone& tone : run.tones)
                 tone.quality = 70.0;
         },
         true, false},
        {"the volume is not what was remembered",
         [](DemoRun& run) {
             for (DemoTone& tone : run.tones)
                 tone.level = tone.hostTicks > 9 * second ? 0.5 : tone.level;
         },
         true, false},
        {"out of tune", [](DemoRun& run) { run.tones[40].pitchError = -1000.0; }, true, false},
        {"a lost cycle now and then", [](DemoRun& run) { run.tones[40].quality = 5; }, true, true},
        {"noise where a context starts, which is not judged",
         [](DemoRun& run) {
             run.records.emplace_back().event = Event::ContextStarted;
             run.records.back().endTicks = 10 * second;
             for (DemoTone& tone : run.tones)
                 if (tone.hostTicks > 9'850'000'000 && tone.hostTicks < 10'700'000'000)
                     tone.quality = 5;
         },
         true, true},
    };
    for (const auto& row : rows) {
        DemoRun run;
        row.spoil(run);
        EXPECT_EQ(DemoClaim::ofTime(run.records, rate).isTrue, row.isTimeGood) << row.why;
        const std::vector<DemoStretch> cut = DemoStretch::cut(run.stretches, run.records);
        EXPECT_EQ(DemoClaim::ofSound(run.tones, cut, 0.6).isTrue, row.isSoundGood) << row.why;
    }
}

} // namespace
