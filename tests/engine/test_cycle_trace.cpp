#include "DXRCycleTrace.h"
#include "EngineComputer.h"

namespace {

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

// Missing records are counted at the place where they are missing.
TEST(DXRCycleTrace, handsRecordsOverInOrderAndCountsWhatFindsNoRoom)
{
    constexpr uint64_t total = 100'000;
    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init(61); // capacity 64
    std::vector<DXRCycleRecord> batch(100);
    for (int i = 0; i < 70; ++i)
        trace->write({});
    EXPECT_EQ(trace->read(batch), 64U);
    std::atomic<bool> isWritten{false};
    std::jthread writer([&] {
        for (uint64_t i = 0; i < total; ++i)
            trace->write({.sampleTime = i, .endTicks = ~i});
        isWritten = true;
    });
    batch.resize(17);
    uint64_t wrong = 0, read = 0;
    for (bool isOver = false; !isOver;) {
        isOver = isWritten; // records written before this are read below
        while (const size_t count = trace->read(batch))
            for (const DXRCycleRecord& each : std::span(batch).first(count))
                wrong +=
                    each.sampleTime != read++ + each.droppedRecords - 6 || each.endTicks != ~each.sampleTime;
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(read + trace->droppedRecords() - 6, total);
}

class RunnerTrace : public EngineComputer {
protected:
    std::vector<DXRCycleRecord> records()
    {
        std::vector<DXRCycleRecord> all(4096);
        all.resize(trace->read(all));
        return all;
    }
    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init();
};

TEST_F(RunnerTrace, recordsCyclesAsTheyWere)
{
    plug(aDevice().uid("out").outputs(2).bufferFrameSize(256));
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    const CXRef<DXRDeviceRunner> other = DXRDeviceRunner::init();
    ASSERT_TRUE(other->setCycleTrace(trace));
    EXPECT_FALSE(runner->setCycleTrace(trace)) << "of another runner";
    ASSERT_TRUE(other->setCycleTrace(nullptr) && runner->setCycleTrace(trace));
    EXPECT_TRUE(runner->setCycleTrace(trace)) << "its own";
    runner->start();
    hal.stepCycles(3);
    hal.loseCycles("out", 2);
    hal.stepCycles(3);
    const std::vector<DXRCycleRecord> all = records();
    ASSERT_EQ(all.size(), 7U);
    EXPECT_EQ(all[0].event, Event::ContextStarted);
    for (size_t i = 1; i < all.size(); ++i) {
        const DXRCycleRecord& each = all[i];
        EXPECT_TRUE(each.event == Event::Cycle && each.context == Context::Device && each.contextNumber == 1);
        EXPECT_EQ(each.deviceID, device("out", output)->deviceID());
        EXPECT_TRUE(each.frameCount == 256 && each.runnerFrameCount == 256);
        EXPECT_EQ(each.sampleTime, (i - 1) * 256);
        EXPECT_EQ(each.deviceSampleTime - all[1].deviceSampleTime, (i < 4 ? i - 1 : i + 1) * 256);
        EXPECT_NEAR(static_cast<double>(each.deadlineTicks - each.dueTicks), 256 / 48e3 * 1e9, 1.0);
        EXPECT_TRUE(each.beginTicks <= each.blocksBeginTicks && each.blocksBeginTicks <= each.endTicks);
    }
    const DXRRunnerCounts counts = runner->counts();
    EXPECT_EQ(counts.cycles, 6U);
    EXPECT_EQ(counts.devices.at(0).uid, "out");
    EXPECT_EQ(counts.lostFrames(), 512U);
    ASSERT_TRUE(runner->setCycleTrace(nullptr) && runner->setCycleTrace(trace));
    EXPECT_EQ(records().at(0).event, Event::ContextStarted) << "a trace begins with what runs";
}

TEST_F(RunnerTrace, countsAndRecordsEveryRestartWithItsReason)
{
    using Restart = DXRRunnerCounts::Restart;
    const auto out = aDevice().uid("out").outputs(2);
    plug(out);
    plug(aDevice().uid("in").inputs(2));
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    ASSERT_TRUE(runner->setCycleTrace(trace));
    runner->start();
    plug(aDevice().uid("other").outputs(2)); // not used by the runner
    unplug("other");
    const auto addIn = [&] { runner->addDevice(device("in", input), std::nullopt, idle); };
    const struct {
        std::function<void()> change;
        Restart reason;
        Context context;
        size_t devices;
    } steps[] = {
        {addIn, Restart::Nodes, Context::Aggregate, 2},
        {[&] { reconfigure("out", [](auto& it) { it.outputs(2); }); }, Restart::Layout, Context::Aggregate,
         2},
        {[&] { unplug("in"); }, Restart::Devices, Context::Device, 1},
        {[&] { unplug("out"); }, Restart::Devices, Context::Timer, 0},
        {[&] { plug(out); }, Restart::Devices, Context::Device, 1},
        {[&] { runner->removeDevice(device("in", input)); }, Restart::Nodes, Context::Device, 1},
        {[&] { unplug("out"); }, Restart::Devices, Context::Timer, 0},
    };
    uint32_t restarts = 0;
    for (const auto& step : steps) {
        hal.stepCycles(10);
        records();
        const uint64_t time = runner->sampleTime();
        step.change();
        settle();
        EXPECT_GE(runner->sampleTime(), time) << restarts;
        std::vector<DXRCycleRecord> all = records();
        std::erase_if(all, [](const DXRCycleRecord& each) { return each.event == Event::Cycle; });
        const DXRRunnerCounts counts = runner->counts();
        EXPECT_EQ(counts.lastRestart, step.reason);
        EXPECT_EQ(counts.restarts, ++restarts);
        EXPECT_EQ(counts.devices.size(), step.devices);
        ASSERT_GE(all.size(), 2U) << restarts;
        EXPECT_TRUE(all[0].event == Event::ContextStopped && all[1].event == Event::ContextStarted);
        EXPECT_EQ(all[1].context, step.context);
        EXPECT_EQ(all[1].contextNumber, restarts + 1);
    }
    const uint64_t cycles = runner->counts().cycles;
    EXPECT_TRUE(eventually([&] { return runner->counts().cycles > cycles; })) << "the timer's";
    runner->stop();
    EXPECT_EQ(runner->counts().cycles + runner->sampleTime(), 0U);
}

} // namespace
