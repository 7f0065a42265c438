#include "DrivingDevice.h"
#include "PipeWireTest.h"

namespace {

/// An aggregate of devices of one server, which runs.
struct Group {
    Group(HALModel& hal, const std::vector<std::string>& uids, const AudioDeviceIOBlock& block)
        : device(makeAggregate(hal, uids)), overloads(hal, device, at(kAudioDeviceProcessorOverload)),
          proc(hal, device, block)
    {}

    const AudioObjectID device;
    RecordingListener overloads;
    const RunningProc proc;
};

using PipeWireGroups = PipeWireTest;

/// A clock that waits for all nodes of the group "patient": none is ever late, however busy the machine is.
DrivingDevice patientClock(const PrivateServer& server)
{
    return {server.remote(), "clock", DrivingDevice::Direction::Sink, {.patientGroup = "patient"}};
}
const NodeProperties patient{{PW_KEY_NODE_GROUP, "patient"}};

// A loss is reported once to the group and to each member, and the sample time includes it.
TEST_F(PipeWireGroups, theCyclesThatTheClockSkipsAreReported)
{
    DrivingDevice clock = patientClock(server);
    const auto overload = at(kAudioDeviceProcessorOverload);
    RecordingListener first(*hal, plug({.name = "first", .properties = patient}), overload);
    RecordingListener second(*hal, plug({.name = "second", .properties = patient}), overload);
    CycleWitness witness;
    Group group(*hal, {"first", "second"}, witnessing(witness));
    RecordingListener* const listeners[] = {&group.overloads, &first, &second};
    for (const uint32_t skipped : {1U, 3U}) {
        ASSERT_TRUE(witness.waitForMore());
        const uint64_t before = witness.lostFrames;
        for (RecordingListener* each : listeners)
            each->clear();
        clock.skip(skipped);
        for (const RecordingListener* each : listeners)
            EXPECT_TRUE(eventually([&] { return each->count() > 0; }));
        ASSERT_TRUE(witness.waitForMore());
        for (const RecordingListener* each : listeners)
            EXPECT_EQ(each->count(), 1U);
        EXPECT_EQ(witness.lostFrames, before + skipped * 512);
    }
}

TEST_F(PipeWireGroups, membersPassTheirStreamsInOneCycleAndComeAndGo)
{
    const DrivingDevice clock = patientClock(server);
    const VirtualDevice members[] = {
        {.name = "duplex", .mediaClass = "Audio/Duplex", .properties = patient},
        {.name = "mono", .channelCount = 1, .properties = patient},
        {.name = "silent", .mediaClass = "Audio/Source/Virtual", .properties = patient}};
    for (const VirtualDevice& each : members)
        plug(each);
    RampCheck duplex, mono; // what the members play comes back
    const RunningProc monitor(*hal, waitForDevice(*hal, "mono.monitor"), checkingRamp(mono));
    CycleWitness own, witness;
    const RunningProc ownProc(*hal, waitForDevice(*hal, "duplex"), witnessing(own)); // beside the group's
    const Group group(*hal, {"duplex", "mono", "silent"}, eachCycle([&](const IOCycle& cycle) {
        witness.see(cycle);
        playRamp(cycle);
        if (cycle.input->numberBuffers == 2 && cycle.output->numberBuffers == 2)
            duplex.see(cycle.in(), 2);
    }));
    EXPECT_TRUE(eventually([&] { return ownNodeCount() == 3; }));
    for (const VirtualDevice& each : members) {
        const AudioObjectID device = deviceWithUID(*hal, each.name);
        EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize), 512U);
        EXPECT_GT(read<double>(device, kAudioDevicePropertyActualSampleRate).value_or(0.0), 0.0);
    }
    for (const RampCheck* played : {&duplex, &mono}) {
        ASSERT_TRUE(played->waitForMore(4096)); // the server may skip a cycle while it links nodes
        const uint64_t before = played->breaks;
        ASSERT_TRUE(played->waitForMore(24000));
        EXPECT_EQ(played->breaks, before);
    }
    const uint64_t before = duplex.breaks;
    for (int round = 0; round < 5; ++round) {
        for (const size_t place : {1U, 2U}) {
            const std::string& name = members[place].name;
            client.unplug(name);
            ASSERT_TRUE(eventually([&] { return deviceWithUID(*hal, name) == kAudioObjectUnknown; }));
            plug(members[place]);
            EXPECT_TRUE(eventually([&] {
                const auto all = subDeviceStatus(*hal, group.device);
                return place < all.size() && all[place].isRunning;
            }));
        }
        RampCheck returned;
        const RunningProc proc(*hal, waitForDevice(*hal, "mono.monitor"), checkingRamp(returned));
        ASSERT_TRUE(returned.waitForMore(4096));
    }
    EXPECT_TRUE(duplex.breaks == before || group.overloads.count() > 0) << "nothing is lost without a report";
    EXPECT_TRUE(own.waitForMore());
    EXPECT_EQ(own.backwards + witness.backwards, 0U);
}

TEST_F(PipeWireGroups, devicesThatCannotShareCyclesGetANodeOfTheirOwn)
{
    plug({.name = "sink"});
    plug({.name = "other"});
    plug({.name = "fixed", .properties = {{"audio.rate", "44100"}}});
    const AudioObjectID asked = plug({.name = "asked"});
    DrivingDevice drifting(server.remote(), "drifting", DrivingDevice::Direction::Sink,
                           {.partsPerMillion = 100});
    {
        const AudioObjectID device = waitForDevice(*hal, "drifting");
        CycleWitness witness;
        const RunningProc proc(*hal, device, witnessing(witness));
        EXPECT_TRUE(witness.waitForMore());
        const auto name = at(kAudioObjectPropertyName);
        const RecordingListener listener(*hal, device, name);
        drifting.rename("New name");
        EXPECT_TRUE(eventually([&] { return listener.includes(name); }));
        EXPECT_EQ(readText(*hal, device, name), "New name");
        EXPECT_NEAR(witness.rateScalar, 1.0 / (1.0 + 100e-6), 1e-9) << "a faster clock, shorter frames";
    }
    ASSERT_EQ(writeValue(*hal, asked, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
    const std::tuple<const char*, const char*, size_t> rows[] = {
        // why, UID, nodes
        {"one graph", "other", 1},
        {"an absent member", "absent", 1},
        {"a clock of its own", "drifting", 2},
        {"a rate of its own", "fixed", 2},
        {"a client has asked for another rate", "asked", 2},
    };
    for (const auto& [why, uid, nodes] : rows) {
        const Group group(*hal, {"sink", uid}, eachCycle(playRamp));
        EXPECT_TRUE(eventually([&, nodes = nodes] { return ownNodeCount() == nodes; })) << why;
        hal->destroyAggregateDevice(group.device);
    }
}

} // namespace
