#include "DXRCycleTrace.h"
#include "EngineComputer.h"

#include <functional>
#include <thread>

namespace {

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

// Records are read in the order they were written; missing records are counted at the place where they are
// missing.
TEST(DXRCycleTrace, handsRecordsOverInOrderAndCountsWhatFindsNoRoom)
{
    constexpr uint64_t total = 100'000;
    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init(61); // capacity 64
    std::atomic<bool> isWritten{false};
    std::thread writer([&] {
        for (uint64_t i = 0; i < total; ++i) {
            DXRCycleRecord record;
            record.sampleTime = i;
            record.endTicks = ~i;
            trace->write(record);
        }
        isWritten = true;
    });
    std::vector<DXRCycleRecord> batch(17);
    uint64_t wrong = 0, read = 0;
    for (bool isOver = false; !isOver;) {
        isOver = isWritten; // records written before this are read below
        while (const size_t count = trace->read(batch)) {
            for (size_t i = 0; i < count; ++i, ++read)
                wrong += batch[i].sampleTime != read + batch[i].droppedRecords ||
                         batch[i].endTicks != ~batch[i].sampleTime;
        }
    }
    writer.join();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(read + trace->droppedRecords(), total);
    for (int i = 0; i < 70; ++i)
        trace->write({});
    batch.resize(100);
    EXPECT_EQ(trace->read(batch), 64U);
    const CXRef<DXRCycleTrace> smallest = DXRCycleTrace::init(1);
    smallest->write({});
    smallest->write({});
    EXPECT_EQ(smallest->droppedRecords(), 1U);
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
    ASSERT_TRUE(other->setCycleTrace(nullptr));
    ASSERT_TRUE(runner->setCycleTrace(trace));
    EXPECT_TRUE(records().empty()) << "nothing runs";
    runner->start();
    hal.stepCycles(3);
    hal.loseCycles("out", 2);
    hal.stepCycles(3);
    const std::vector<DXRCycleRecord> all = records();
    ASSERT_EQ(all.size(), 7U);
    EXPECT_EQ(all[0].event, Event::ContextStarted);
    EXPECT_LE(all[0].beginTicks, all[0].endTicks);
    uint64_t lost = 0;
    for (size_t i = 1; i < all.size(); ++i) {
        const DXRCycleRecord& each = all[i];
        EXPECT_EQ(each.event, Event::Cycle);
        EXPECT_EQ(each.context, Context::Device);
        EXPECT_EQ(each.contextNumber, 1U);
        EXPECT_EQ(each.deviceID, device("out", output)->deviceID());
        EXPECT_EQ(each.frameCount, 256U);
        EXPECT_EQ(each.runnerFrameCount, 256U);
        EXPECT_EQ(each.sampleTime, (i - 1) * 256);
        EXPECT_NEAR(static_cast<double>(each.deadlineTicks - each.dueTicks), 256 / 48e3 * 1e9, 1.0);
        EXPECT_TRUE(each.beginTicks <= each.blocksBeginTicks && each.blocksBeginTicks <= each.endTicks);
        if (i > 1)
            lost += each.deviceSampleTime - all[i - 1].deviceSampleTime - 256;
    }
    EXPECT_EQ(lost, 512U);
    const DXRRunnerCounts counts = runner->counts();
    EXPECT_EQ(counts.cycles, 6U);
    EXPECT_EQ(counts.restarts, 0U);
    EXPECT_EQ(counts.lastRestart, DXRRunnerCounts::Restart::None);
    ASSERT_EQ(counts.devices.size(), 1U);
    EXPECT_EQ(counts.devices[0].uid, "out");
    EXPECT_EQ(counts.lostFrames(), 512U);
    ASSERT_TRUE(runner->setCycleTrace(nullptr));
    ASSERT_TRUE(runner->setCycleTrace(trace));
    EXPECT_EQ(records().at(0).event, Event::ContextStarted) << "a trace begins with what runs";
}

TEST_F(RunnerTrace, countsAndRecordsEveryRestartWithItsReason)
{
    using Restart = DXRRunnerCounts::Restart;
    plug(aDevice().uid("out").outputs(2));
    plug(aDevice().uid("in").inputs(2));
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    ASSERT_TRUE(runner->setCycleTrace(trace));
    EXPECT_EQ(runner->counts().restarts, 0U) << "it does not run";
    runner->start();
    plug(aDevice().uid("other").outputs(2)); // not used by the runner
    unplug("other");
    const struct {
        std::function<void()> change;
        Restart reason;
        Context context;
        size_t devices;
    } steps[] = {
        {[&] { runner->addDevice(device("in", input), std::nullopt, idle); }, Restart::Nodes,
         Context::Aggregate, 2},
        {[&] { hal.reconfigure("out", [](auto& it) { it.outputs(2); }); }, Restart::Layout,
         Context::Aggregate, 2},
        {[&] { unplug("in"); }, Restart::Devices, Context::Device, 1},
        {[&] { unplug("out"); }, Restart::Devices, Context::Timer, 0},
        {[&] { plug(aDevice().uid("out").outputs(2)); }, Restart::Devices, Context::Device, 1},
        {[&] { unplug("out"); }, Restart::Devices, Context::Timer, 0},
        {[&] { runner->removeDevice(device("in", input)); }, Restart::Nodes, Context::Timer, 0},
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
        EXPECT_EQ(all[0].event, Event::ContextStopped);
        EXPECT_EQ(all[1].event, Event::ContextStarted);
        EXPECT_EQ(all[1].context, step.context);
        EXPECT_EQ(all[1].contextNumber, restarts + 1);
    }
    for (std::vector<DXRCycleRecord> timed; timed.empty() || timed[0].event != Event::Cycle;
         timed = records())
        std::this_thread::yield();
    runner->stop();
    EXPECT_EQ(runner->counts().cycles, 0U);
    EXPECT_EQ(runner->sampleTime(), 0U);
}

} // namespace
