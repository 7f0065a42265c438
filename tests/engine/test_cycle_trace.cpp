#include "DXRCycleTrace.h"
#include "EngineComputer.h"

#include <thread>

namespace {

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

// What is read is what was written, in order; what is missing was counted, at the place where it is missing.
TEST(DXRCycleTrace, handsRecordsOverInOrderAndCountsWhatFindsNoRoom)
{
    constexpr uint64_t total = 100'000;
    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init(61);
    std::atomic<bool> isWritten{false};
    std::atomic<uint64_t> read{0};
    std::thread writer([&, seen = uint64_t{0}]() mutable {
        for (uint64_t i = 0; i < total; ++i) {
            DXRCycleRecord record;
            record.sampleTime = i;
            record.endTicks = ~i;
            trace->write(record);
            if (i % 4096 != 100)
                continue;
            while (read == seen) // the reader has its turn, however busy the machine is
                std::this_thread::yield();
            seen = read;
        }
        isWritten = true;
    });
    std::vector<DXRCycleRecord> batch(17);
    uint64_t wrong = 0;
    for (bool isOver = false; !isOver;) {
        isOver = isWritten; // what was written before this is seen below
        while (const size_t count = trace->read(batch)) {
            for (size_t i = 0; i < count; ++i, ++read)
                wrong += batch[i].sampleTime != read + batch[i].droppedRecords ||
                         batch[i].endTicks != ~batch[i].sampleTime;
            if (read % 5 == 0)
                std::this_thread::yield();
        }
    }
    writer.join();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(read + trace->droppedRecords(), total);
    EXPECT_GT(read, 64U);
}

class RunnerTrace : public EngineComputer {
protected:
    std::vector<DXRCycleRecord> records()
    {
        std::vector<DXRCycleRecord> all, batch(1024);
        while (const size_t count = trace->read(batch))
            all.insert(all.end(), batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(count));
        return all;
    }

    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init();
    const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};
};

TEST_F(RunnerTrace, tellsCyclesAndContextsAsTheyWere)
{
    plugged(aDevice().uid("out").outputs(2).bufferFrameSize(256));
    plugged(aDevice().uid("in").inputs(2).bufferFrameSize(256));
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    ASSERT_TRUE(runner->setCycleTrace(trace));
    EXPECT_TRUE(records().empty()) << "nothing runs";
    runner->start();
    hal.stepCycles(3);
    hal.loseCycles("out", 2);
    hal.stepCycles(3);

    std::vector<DXRCycleRecord> first = records();
    ASSERT_GE(first.size(), 5U);
    EXPECT_EQ(first[0].event, Event::ContextStarted);
    EXPECT_LE(first[0].beginTicks, first[0].endTicks);
    uint64_t lost = 0;
    for (size_t i = 1; i < first.size(); ++i) {
        const DXRCycleRecord& each = first[i];
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
            lost += each.deviceSampleTime - first[i - 1].deviceSampleTime - 256;
    }
    EXPECT_EQ(lost, 512U);
    DXRRunnerCounts counts = runner->counts();
    EXPECT_EQ(counts.cycles, first.size() - 1);
    EXPECT_EQ(counts.restarts, 0U);
    ASSERT_EQ(counts.devices.size(), 1U);
    EXPECT_EQ(counts.devices[0].uid, "out");
    EXPECT_EQ(counts.devices[0].lostFrames, 512U);

    runner->addDevice(device("in", input), std::nullopt, idle); // both as one
    hal.stepCycles(20);
    using Restart = DXRRunnerCounts::Restart;
    EXPECT_EQ(runner->counts().lastRestart, Restart::Nodes);
    EXPECT_EQ(runner->counts().devices.size(), 2U);
    hal.reconfigure("out", [](auto& it) { it.outputs(2); });
    settleEngine();
    EXPECT_EQ(runner->counts().lastRestart, Restart::Layout);
    hal.reconfigure("out", [](auto& it) { it.noStreams(HALDirection::Output).outputs(2); });
    settleEngine();
    records();
    unplugged("in");
    unplugged("out"); // the timer
    while (runner->sampleTime() < 200U * 256)
        std::this_thread::yield();
    counts = runner->counts();
    EXPECT_EQ(counts.lastRestart, Restart::Devices);
    EXPECT_EQ(counts.restarts, 5U);
    EXPECT_TRUE(counts.devices.empty());
    runner->stop();
    EXPECT_EQ(runner->counts().cycles, 0U);
    std::vector<std::pair<Event, Context>> seen;
    uint32_t number = 4;
    uint64_t sampleTime = 0;
    for (const DXRCycleRecord& each : records()) {
        number += each.event == Event::ContextStarted;
        EXPECT_EQ(each.contextNumber, number);
        EXPECT_GE(each.sampleTime, sampleTime);
        sampleTime = each.sampleTime;
        if (seen.empty() || seen.back() != std::pair(each.event, each.context))
            seen.emplace_back(each.event, each.context);
    }
    const std::vector<std::pair<Event, Context>> expected{{Event::ContextStopped, Context::Aggregate},
                                                          {Event::ContextStarted, Context::Device},
                                                          {Event::ContextStopped, Context::Device},
                                                          {Event::ContextStarted, Context::Timer},
                                                          {Event::Cycle, Context::Timer},
                                                          {Event::ContextStopped, Context::Timer}};
    EXPECT_EQ(seen, expected);
}

TEST_F(RunnerTrace, belongsToOneRunnerAtATimeAndComesAndGoesWhileItRuns)
{
    plugged(aDevice().uid("out").outputs(2).bufferFrameSize(64).sampleRate(44100));
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    runner->setSampleRate(48000);
    const CXRef<DXRDeviceRunner> other = DXRDeviceRunner::init();
    ASSERT_TRUE(other->setCycleTrace(trace));
    EXPECT_FALSE(runner->setCycleTrace(trace));
    ASSERT_TRUE(other->setCycleTrace(nullptr));
    runner->start();
    std::atomic<bool> isOver{false};
    std::thread hardware([&] {
        while (!isOver)
            hal.stepCycles(1);
    });
    uint64_t starts = 0, cycles = 0, frames = 0;
    uint64_t begin = 0, end = 0, dropped = 0;
    for (int i = 0; i < 300 || cycles < 300; ++i) {
        ASSERT_TRUE(runner->setCycleTrace(trace));
        std::this_thread::yield();
        ASSERT_TRUE(runner->setCycleTrace(nullptr));
        for (const DXRCycleRecord& each : records()) {
            if (each.event == Event::ContextStarted) {
                ++starts;
                begin = end = each.sampleTime;
                continue;
            }
            if (std::exchange(dropped, each.droppedRecords) != each.droppedRecords)
                end = each.sampleTime; // this thread was away for long
            EXPECT_EQ(each.sampleTime, end) << "none is missing while it is there";
            ++cycles;
            frames += each.runnerFrameCount;
            end += each.runnerFrameCount;
        }
    }
    isOver = true;
    hardware.join();
    EXPECT_GE(starts + trace->droppedRecords(), 300U);
    EXPECT_GE(end, begin);
    EXPECT_GT(frames, 0U);
}

} // namespace
