#include "DriftingDevice.h"
#include "PatientClock.h"
#include "PipeWireTest.h"

namespace {

class PipeWireIO : public PipeWireTest {
protected:
    AudioObjectID plugPatientSink()
    {
        return plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, PatientClock::group}}});
    }
};

TEST_F(PipeWireIO, playsARampThatComesBackExactlyFromTheMonitor)
{
    const PatientClock clock(server.remote());
    const AudioObjectID device = plugPatientSink();
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
                       ramp.begin() + frames); // a cycle may be left out while the tap is linked
            EXPECT_EQ(breaksOf(ramp), 0U) << rate << " Hz, " << frames << " frames";
            EXPECT_EQ(tap.gaps() + overloads.count(), 0U);
        }
    }
}

// A loss is reported once, and counted in the sample time.
TEST_F(PipeWireIO, reportsTheCyclesThatTheClockSkips)
{
    PatientClock clock(server.remote());
    const AudioObjectID device = plugPatientSink();
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

TEST_F(PipeWireIO, carriesFromASourceOfOneClockAndToASinkOfAnother)
{
    DriftingDevice source(server.remote(), "fast", DriftingDevice::Direction::Source, 1000.0);
    DriftingDevice sink(server.remote(), "slow", DriftingDevice::Direction::Sink, -500.0);
    std::atomic<uint64_t> heard{0}, breaks{0};
    std::atomic<double> scalar{0.0};
    {
        const RunningProc capture(*hal, waitForDevice(*hal, "fast"),
                                  eachCycle([&, last = int64_t{0}](const IOCycle& cycle) mutable {
                                      for (size_t i = 0; i < cycle.in().size(); i += 2) {
                                          const int64_t value = std::llround(cycle.in()[i] / rampStep);
                                          breaks += last != 0 && value != last + 1;
                                          last = value;
                                          heard += value != 0;
                                      }
                                      scalar = cycle.now.rateScalar;
                                  }));
        const RunningProc play(*hal, waitForDevice(*hal, "slow"), eachCycle(playRamp));
        ASSERT_TRUE(eventually([&] { return heard > 48000 && sink.framesReceived() > 48000; }));
    }
    // Each clock may lose cycles of its own on a shared machine; a fault breaks every cycle.
    EXPECT_LT(breaks * 512, heard / 4);
    EXPECT_LT(sink.breaks() * 512, sink.framesReceived() / 4);
    EXPECT_NEAR(scalar, 1.0 / 1.001, 1e-9) << "the faster clock has shorter frames";
}

TEST_F(PipeWireIO, followsWhatAnotherClientMakesOfTheGraph)
{
    const AudioObjectID device = plug({.name = "sink"});
    CycleWitness witness;
    std::atomic<double> rateOnIOThread{0.0};
    const RunningProc proc(*hal, device, eachCycle([&](const IOCycle& cycle) {
        witness.see(cycle);
        rateOnIOThread = *readValue<double>(*hal, device, at(kAudioDevicePropertyNominalSampleRate));
    }));
    ASSERT_TRUE(eventually([&] { return witness.frames == 512; }));
    client.setMetadata("settings", "clock.force-quantum", "256");
    client.setMetadata("settings", "clock.force-rate", "96000");
    EXPECT_TRUE(eventually([&] { return witness.frames == 256 && rateOnIOThread == 96000.0; }));
    EXPECT_TRUE(eventually([&] {
        return read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize) == 256U &&
               read<double>(device, kAudioDevicePropertyNominalSampleRate) == 96000.0;
    }));
    EXPECT_EQ(witness.backwards, 0U);
}

} // namespace
