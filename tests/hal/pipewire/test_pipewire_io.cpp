#include "DrivingDevice.h"
#include "PipeWireTest.h"

namespace {

class PipeWireIO : public PipeWireTest {
protected:
    DrivingDevice clock{
        server.remote(), "clock", DrivingDevice::Direction::Sink, {.patientGroup = "patient"}};
    const AudioObjectID device = plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, "patient"}}});
};

TEST_F(PipeWireIO, playsARampThatComesBackExactlyFromTheMonitor)
{
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        for (const uint32_t frames : {64U, 128U, 512U, 1024U}) {
            ASSERT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyNominalSampleRate), rate), 0);
            ASSERT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), frames), 0);
            const RecordingListener overloads(*hal, device, at(kAudioDeviceProcessorOverload));
            const RunningProc proc(*hal, device, eachCycle(playRamp));
            ASSERT_EQ(proc.status, kAudioHardwareNoError);
            EXPECT_EQ(read<double>(device, kAudioDevicePropertyNominalSampleRate), rate);
            EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize), frames);
            MonitorTap tap(client, "sink", "monitor_FR");
            ASSERT_TRUE(tap.waitForFrames(8192));
            std::vector<float> ramp = tap.finish();
            ramp.erase(ramp.begin(),
                       ramp.begin() + frames); // the server may skip a cycle while it links the tap
            EXPECT_EQ(breaksOf(ramp), 0U) << rate << " Hz, " << frames << " frames";
            EXPECT_EQ(tap.gaps() + overloads.count(), 0U);
        }
    }
}

// A loss is reported once, and the sample time includes it.
TEST_F(PipeWireIO, reportsTheCyclesThatTheClockSkips)
{
    const RecordingListener overloads(*hal, device, at(kAudioDeviceProcessorOverload));
    CycleWitness witness;
    const RunningProc proc(*hal, device, witnessing(witness));
    for (const uint32_t skipped : {1U, 3U}) {
        ASSERT_TRUE(witness.waitForMore());
        const uint64_t before = witness.lostFrames;
        const size_t reported = overloads.count();
        clock.skip(skipped);
        EXPECT_TRUE(eventually([&] { return overloads.count() > reported; }));
        EXPECT_EQ(overloads.count(), reported + 1);
        EXPECT_EQ(witness.lostFrames, before + skipped * 512);
    }
}

} // namespace
