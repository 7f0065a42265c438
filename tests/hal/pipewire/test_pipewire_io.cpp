#include "DriftingDevice.h"
#include "PatientClock.h"
#include "PipeWireIOTest.h"

#include <atomic>

namespace {

TEST(PipeWireIO, playsARampThatComesBackExactlyFromTheMonitor)
{
    PrivateServer server;
    const PatientClock clock(server.remote());
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, PatientClock::group}}});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    const uint32_t node = devices.client().nodeID("sink");
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        for (const uint32_t frames : {64U, 128U, 512U, 1024U}) {
            ASSERT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyNominalSampleRate), rate), 0);
            ASSERT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), frames), 0);
            const OverloadCounter overloads(*hal, device);
            const RunningProc proc(*hal, device, playingRamp());
            ASSERT_EQ(proc.status, kAudioHardwareNoError);
            EXPECT_EQ(readValue<double>(*hal, device, at(kAudioDevicePropertyNominalSampleRate)), rate);
            EXPECT_EQ(readValue<uint32_t>(*hal, device, at(kAudioDevicePropertyBufferFrameSize)), frames);
            MonitorTap tap(devices.client(), node, "monitor_FR", 1 << 16);
            ASSERT_TRUE(tap.waitForFrames(8192));
            std::vector<float> ramp = tap.finish();
            // The server may leave out the tap's second cycle, while it is being linked.
            ramp.erase(ramp.begin(), ramp.begin() + frames);
            EXPECT_EQ(breaksOf(ramp), 0U) << rate << " Hz, " << frames << " frames";
            EXPECT_EQ(tap.gaps() + overloads.count(), 0U);
        }
    }
}

// What is lost is reported, once, and counted in the sample time.
TEST(PipeWireIO, reportsTheCyclesThatTheClockSkips)
{
    PrivateServer server;
    PatientClock clock(server.remote());
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, PatientClock::group}}});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    const OverloadCounter overloads(*hal, device);
    std::atomic<uint64_t> cycles{0}, lostFrames{0};
    const RunningProc proc(*hal, device,
                           [&, next = -1.0](const AudioTimeStamp* now, const AudioBufferList*,
                                            const AudioTimeStamp*, AudioBufferList* out,
                                            const AudioTimeStamp*) mutable {
                               lostFrames += next < 0.0 ? 0 : static_cast<uint64_t>(now->sampleTime - next);
                               next = now->sampleTime + out->buffers[0].dataByteSize / 8;
                               ++cycles;
                           });
    for (const uint32_t skipped : {1U, 3U}) {
        ASSERT_TRUE(eventually([&, before = cycles.load()] { return cycles > before + 10; }));
        const uint64_t before = lostFrames;
        const size_t reported = overloads.count();
        clock.skip(skipped);
        EXPECT_TRUE(eventually([&] { return overloads.count() > reported; }));
        EXPECT_EQ(overloads.count(), reported + 1);
        EXPECT_EQ(lostFrames, before + skipped * 512);
    }
}

TEST(PipeWireIO, carriesFromASourceOfOneClockAndToASinkOfAnother)
{
    PrivateServer server;
    DriftingDevice source(server.remote(), "fast", DriftingDevice::Direction::Source, 1000.0);
    DriftingDevice sink(server.remote(), "slow", DriftingDevice::Direction::Sink, -500.0);
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID in = waitForDevice(*hal, "fast");
    const AudioObjectID out = waitForDevice(*hal, "slow");
    std::atomic<uint64_t> heard{0};
    std::atomic<uint64_t> breaks{0};
    std::atomic<double> scalar{0.0};
    {
        const RunningProc capture(*hal, in,
                                  [&, last = int64_t{0}](const AudioTimeStamp* now,
                                                         const AudioBufferList* list, const AudioTimeStamp*,
                                                         AudioBufferList*, const AudioTimeStamp*) mutable {
                                      const AudioBuffer& buffer = list->buffers[0];
                                      const auto* samples = static_cast<const float*>(buffer.data);
                                      for (uint32_t i = 0; i < buffer.dataByteSize / 8; ++i) {
                                          const int64_t value = std::llround(samples[2 * i] / step);
                                          breaks += last != 0 && value != ((last + 1) & 0xFFFFFF);
                                          last = value;
                                          heard += value != 0;
                                      }
                                      scalar = now->rateScalar;
                                  });
        const RunningProc play(*hal, out, playingRamp());
        ASSERT_TRUE(eventually([&] { return heard > 48000 && sink.framesReceived() > 48000; }));
    }
    // Each clock may lose cycles of its own on a shared machine; a fault breaks every cycle.
    EXPECT_LT(breaks * 512, heard / 4);
    EXPECT_LT(sink.breaks() * 512, sink.framesReceived() / 4);
    EXPECT_NEAR(scalar, 1.0 / 1.001, 1e-9) << "the faster clock has shorter frames";
}

TEST(PipeWireIO, followsWhatAnotherClientMakesOfTheGraph)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    std::atomic<uint32_t> frames{0};
    std::atomic<double> rateOnIOThread{0.0};
    std::atomic<uint64_t> backwards{0};
    const RunningProc proc(
        *hal, device,
        [&, next = -1.0](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                         AudioBufferList* out, const AudioTimeStamp*) mutable {
            const uint32_t count = out->buffers[0].dataByteSize / 8;
            backwards += now->sampleTime < next;
            next = now->sampleTime + count;
            frames = count;
            rateOnIOThread = *readValue<double>(*hal, device, at(kAudioDevicePropertyNominalSampleRate));
        });
    ASSERT_TRUE(eventually([&] { return frames == 512; }));

    MetadataView settings(devices.client(), "settings");
    settings.set("clock.force-quantum", "256");
    settings.set("clock.force-rate", "96000");
    EXPECT_TRUE(eventually([&] { return frames == 256 && rateOnIOThread == 96000.0; }));
    EXPECT_TRUE(eventually([&] {
        return readValue<uint32_t>(*hal, device, at(kAudioDevicePropertyBufferFrameSize)) == 256U &&
               readValue<double>(*hal, device, at(kAudioDevicePropertyNominalSampleRate)) == 96000.0;
    }));
    EXPECT_EQ(backwards, 0U);
}

} // namespace
