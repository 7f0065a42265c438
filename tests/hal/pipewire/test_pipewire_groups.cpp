#include "DrivingDevice.h"
#include "PipeWireTest.h"
#include "StallWatch.h"

#include "HostClock.h"

namespace {

/// An aggregate of devices of one server; runs until destroyed.
class Group {
public:
    Group(HALModel& hal, const std::vector<std::string>& uids, const AudioDeviceIOBlock& block)
        : device(makeAggregate(hal, uids)), overloads(hal, device, at(kAudioDeviceProcessorOverload)),
          _hal(hal), _proc(hal, device, block)
    {
        EXPECT_EQ(_proc.status, kAudioHardwareNoError);
    }
    ~Group() { _hal.destroyAggregateDevice(device); }

    /// Whether the sub-device at index `place` runs.
    bool runs(size_t place) const
    {
        const auto all = subDeviceStatus(_hal, device);
        return place < all.size() && all[place].isRunning;
    }
    /// Whether the recording has no gap, or a lost cycle was reported, which happens on a busy machine.
    bool isWhole(MonitorTap& tap) const
    {
        const bool isUnbroken = breaksOf(tap.finish()) == 0;
        return isUnbroken || tap.gaps() > 0 || eventually([&] { return overloads.count() > 0; });
    }

    const AudioObjectID device;
    const RecordingListener overloads;

private:
    HALModel& _hal;
    const RunningProc _proc;
};

using PipeWireGroups = PipeWireTest;

TEST_F(PipeWireGroups, theStreamsOfAllMembersPassInOneCycle)
{
    const DrivingDevice clock(server.remote(), "clock", DrivingDevice::Direction::Sink,
                              {.patientGroup = "patient"});
    const NodeProperties patient{{PW_KEY_NODE_GROUP, "patient"}};
    const AudioObjectID members[] = {
        plug({.name = "duplex", .mediaClass = "Audio/Duplex", .properties = patient}),
        plug({.name = "mono", .channelCount = 1, .properties = patient}),
        plug({.name = "silent", .mediaClass = "Audio/Source/Virtual", .properties = patient})};
    std::atomic<uint64_t> received{0}, breaks{0};
    const Group group(*hal, {"duplex", "mono", "silent"},
                      eachCycle([&, last = int64_t{0}](const IOCycle& cycle) mutable {
                          playRamp(cycle);
                          if (cycle.input->numberBuffers != 2 || cycle.output->numberBuffers != 2)
                              return;
                          for (size_t i = 1; i < cycle.in().size(); i += 2) {
                              const int64_t value = std::llround(cycle.in()[i] / rampStep);
                              breaks += last != 0 && value != last + 1;
                              last = value;
                              received += value != 0;
                          }
                      }));
    EXPECT_TRUE(eventually([&] { return ownNodeCount() == 1; }));
    for (const AudioObjectID device : members) {
        EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize), 512U);
        EXPECT_GT(read<double>(device, kAudioDevicePropertyActualSampleRate).value_or(0.0), 0.0);
    }
    MonitorTap first(client, "duplex", "capture_FR"), second(client, "mono", "monitor_MONO");
    ASSERT_TRUE(first.waitForFrames(24000) && second.waitForFrames(24000));
    ASSERT_TRUE(eventually([&] { return received > 24000; }));
    for (MonitorTap* tap : {&first, &second}) {
        std::vector<float> ramp = tap->finish();
        ramp.erase(ramp.begin(),
                   ramp.begin() + 1024); // the server may skip a cycle while it links the tap
        for (float& sample : ramp)
            sample = std::abs(sample); // negated in the second stream
        EXPECT_EQ(breaksOf(ramp), 0U);
    }
    EXPECT_LE(breaks, 2U) << "as each tap is linked";
}

TEST_F(PipeWireGroups, membersComeAndGoWhileTheOthersGoOn)
{
    for (const char* name : {"stays", "sink"})
        plug({.name = name});
    plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    CycleWitness witness;
    const Group group(*hal, {"stays", "sink", "source"}, eachCycle([&](const IOCycle& cycle) {
        witness.see(cycle);
        playRamp(cycle);
    }));
    MonitorTap tap(client, "stays", "monitor_FL", 1 << 20);
    ASSERT_TRUE(tap.waitForFrames(4096));
    for (int round = 0; round < 5; ++round) {
        for (const auto& [place, name] : {std::pair{1, "sink"}, std::pair{2, "source"}}) {
            client.unplug(name);
            ASSERT_TRUE(
                eventually([&, gone = name] { return deviceWithUID(*hal, gone) == kAudioObjectUnknown; }));
            plug({.name = name, .mediaClass = place == 1 ? "Audio/Sink" : "Audio/Source/Virtual"});
            EXPECT_TRUE(eventually([&, at = place] { return group.runs(static_cast<size_t>(at)); }));
        }
        MonitorTap returned(client, "sink", "monitor_FR");
        ASSERT_TRUE(returned.waitForFrames(4096));
    }
    EXPECT_TRUE(group.isWhole(tap));
    EXPECT_EQ(witness.backwards, 0U);
}

TEST_F(PipeWireGroups, devicesThatCannotShareCyclesGetANodeOfTheirOwn)
{
    plug({.name = "sink"});
    plug({.name = "other"});
    plug({.name = "fixed", .properties = {{"audio.rate", "44100"}}});
    const AudioObjectID asked = plug({.name = "asked"});
    DrivingDevice drifting(server.remote(), "drifting", DrivingDevice::Direction::Sink,
                           {.partsPerMillion = 100});
    waitForDevice(*hal, "drifting");
    ASSERT_EQ(writeValue(*hal, asked, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
    const struct {
        const char* why;
        const char* uid;
        size_t nodes;
    } rows[] = {
        {"one graph", "other", 1},
        {"an absent member", "absent", 1},
        {"a clock of its own", "drifting", 2},
        {"a rate of its own", "fixed", 2},
        {"a client has asked for another rate", "asked", 2},
    };
    for (const auto& row : rows) {
        const Group group(*hal, {"sink", row.uid}, eachCycle(playRamp));
        EXPECT_TRUE(eventually([&] { return ownNodeCount() == row.nodes; })) << row.why;
    }
}

// How closely the ratio converges depends on the computer's load: only the soak checks it.
TEST_F(PipeWireGroups, theRatioOfTwoClocksIsFoundAndNothingLost)
{
    constexpr double sourcePPM = 150.0, sinkPPM = -60.0;
    const double truth = ((1.0 + sourcePPM * 1e-6) / (1.0 + sinkPPM * 1e-6) - 1.0) * 1e6;
    using Direction = DrivingDevice::Direction;
    const DrivingDevice source(server.remote(), "source", Direction::Source, {.partsPerMillion = sourcePPM});
    const DrivingDevice sink(server.remote(), "sink", Direction::Sink, {.partsPerMillion = sinkPPM});
    waitForDevice(*hal, "sink");
    CycleWitness ofSource, ofBoth;
    const RunningProc own(*hal, waitForDevice(*hal, "source"), witnessing(ofSource));
    const Group group(*hal, {"sink", "source"}, witnessing(ofBoth));
    EXPECT_TRUE(ofSource.waitForMore());
    EXPECT_NEAR(ofSource.rateScalar, 1.0 / (1.0 + sourcePPM * 1e-6), 1e-9)
        << "a faster clock, shorter frames";
    EXPECT_TRUE(ofBoth.waitForMore());
    const char* const soak = std::getenv("DXR_SOAK_SECONDS");
    if (!soak)
        return;
    sleepForMilliseconds(20000); // until the ratio has settled
    const auto follower = [&] { return subDeviceStatus(*hal, group.device).at(1); };
    const AudioAggregateSubDeviceStatus before = follower();
    const StallWatch machine(std::chrono::milliseconds(3)); // the delay tolerates 5 ms
    const uint32_t count = 20 * static_cast<uint32_t>(std::atoi(soak));
    double squares = 0.0;
    for (uint32_t i = 0; i < count; ++i) {
        sleepForMilliseconds(50);
        squares += std::pow(follower().partsPerMillion - truth, 2);
    }
    const AudioAggregateSubDeviceStatus after = follower();
    const double error = std::sqrt(squares / count);
    std::printf("ratio %+.4f ppm, truth %+.4f, error %.4f rms; %u stalls of the machine, up to %.1f ms\n",
                after.partsPerMillion, truth, error, machine.stalls(), machine.longestMilliseconds());
    EXPECT_LT(error, 1.0);
    EXPECT_EQ(ofBoth.backwards, 0U);
    EXPECT_EQ(after.isCompensated, 1U);
    if (machine.stalls() == 0) {
        EXPECT_EQ(after.resynchronisations, before.resynchronisations);
        EXPECT_EQ(after.lostFrames, before.lostFrames);
        EXPECT_GT(ofBoth.cycles, 48000U / 512U * count / 20 * 9 / 10);
    }
}

TEST_F(PipeWireGroups, anOverloadIsReportedToTheGroupAndToEveryMember)
{
    const RecordingListener first(*hal, plug({.name = "first"}), at(kAudioDeviceProcessorOverload));
    const RecordingListener second(*hal, plug({.name = "second"}), at(kAudioDeviceProcessorOverload));
    const Group group(*hal, {"first", "second"}, eachCycle([count = 0](const IOCycle& cycle) mutable {
        // Blocks one cycle for the length of several.
        while (++count == 20 && dxr::HostClock::nowTicks() < cycle.now.hostTime + 100'000'000)
            --count;
    }));
    for (const RecordingListener* each : {&group.overloads, &first, &second})
        EXPECT_TRUE(eventually([&] { return each->count() > 0; }));
}

TEST_F(PipeWireGroups, oneMembersRateAndCycleLengthAreTheGroups)
{
    const AudioObjectID first = plug({.name = "first"}), second = plug({.name = "second"});
    CycleWitness witness;
    const RunningProc own(*hal, first, witnessing(witness));
    {
        const Group group(*hal, {"first", "second"}, eachCycle(playRamp));
        EXPECT_EQ(writeValue(*hal, second, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
        EXPECT_EQ(writeValue(*hal, second, at(kAudioDevicePropertyBufferFrameSize), 1024U), 0);
        for (const AudioObjectID device : {first, second}) {
            EXPECT_TRUE(becomes(device, kAudioDevicePropertyNominalSampleRate, 96000.0));
            EXPECT_TRUE(becomes(device, kAudioDevicePropertyBufferFrameSize, 1024U));
        }
    }
    EXPECT_TRUE(witness.waitForMore()) << "the device's own IO goes on beside the group's and after it";
}

TEST_F(PipeWireGroups, aGroupGoesOnWhenTheServerIsBack)
{
    plug({.name = "sink"});
    CycleWitness witness;
    const Group group(*hal, {"sink", "absent"}, witnessing(witness));
    ASSERT_TRUE(witness.waitForMore());
    server.kill();
    ASSERT_TRUE(eventually([&] { return deviceWithUID(*hal, "sink") == kAudioObjectUnknown; }));
    server.start();
    TestClient again(server.remote());
    again.plug({.name = "sink"});
    EXPECT_TRUE(witness.waitForMore());
    EXPECT_EQ(witness.backwards, 0U);
}

} // namespace
