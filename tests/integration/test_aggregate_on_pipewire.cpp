#include "DriftingDevice.h"
#include "PipeWireTest.h"
#include "StallWatch.h"

#include <cmath>
#include <cstdio>

namespace {

/// Two devices of a real server with clocks of their own, joined.
class AggregateOnPipeWire : public testing::Test {
protected:
    AudioObjectID aggregateOf(const std::string& first, const std::string& second)
    {
        CXPlist description{{"uid", "joined"}, {"name", "Joined"}, {"master", first}};
        description["subdevices"] = CXPlist::array({{{"uid", first}}, {{"uid", second}, {"drift", 1}}});
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_EQ(hal->createAggregateDevice(*CXValue::initWithPlist(description), device),
                  kAudioHardwareNoError);
        return device;
    }
    AudioAggregateSubDeviceStatus follower(AudioObjectID device)
    {
        const auto all = readList<AudioAggregateSubDeviceStatus>(
            *hal, device, at(kAudioAggregateDevicePropertySubDeviceStatus));
        return all.size() == 2 ? all[1] : AudioAggregateSubDeviceStatus{};
    }

    PrivateServer server;
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
};

TEST_F(AggregateOnPipeWire, findsTheRatioOfTwoClocksAndLosesNothing)
{
    constexpr double sourcePPM = 150.0, sinkPPM = -60.0;
    const double truth = ((1.0 + sourcePPM * 1e-6) / (1.0 + sinkPPM * 1e-6) - 1.0) * 1e6;
    const DriftingDevice source(server.remote(), "source", DriftingDevice::Direction::Source, sourcePPM);
    const DriftingDevice sink(server.remote(), "sink", DriftingDevice::Direction::Sink, sinkPPM);
    waitForDevice(*hal, "source");
    waitForDevice(*hal, "sink");
    const AudioObjectID device = aggregateOf("sink", "source");
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), 512U), kAudioHardwareNoError);
    std::atomic<uint64_t> cycles{0}, backwards{0};
    double last = -1.0;
    const RunningProc proc(*hal, device,
                           [&](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                               AudioBufferList*, const AudioTimeStamp*) {
                               backwards += now->sampleTime <= last;
                               last = now->sampleTime;
                               ++cycles;
                           });
    ASSERT_EQ(proc.status, kAudioHardwareNoError);
    std::this_thread::sleep_for(std::chrono::seconds(DXR_DRIFT_SETTLING_SECONDS));
    const AudioAggregateSubDeviceStatus before = follower(device);
    const StallWatch machine(std::chrono::milliseconds(3)); // the delay has room for 5
    double squares = 0.0, lowest = 1e9, highest = -1e9;
    int count = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(DXR_DRIFT_SECONDS);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const double error = follower(device).partsPerMillion - truth;
        squares += error * error;
        lowest = std::min(lowest, error);
        highest = std::max(highest, error);
        ++count;
    }
    const AudioAggregateSubDeviceStatus after = follower(device);
    std::printf(
        "%d s at 512 frames: ratio %+.4f ppm, truth %+.4f, error %.4f rms, %+.4f to %+.4f; delay "
        "%.0f frames; "
        "%u resynchronisations, %lu frames lost (%u and %lu while starting); the machine stalled %u times, "
        "for up to %.1f ms\n",
        DXR_DRIFT_SECONDS, after.partsPerMillion, truth, std::sqrt(squares / count), lowest, highest,
        after.inputDelayFrames, after.resynchronisations - before.resynchronisations,
        static_cast<unsigned long>(after.lostFrames - before.lostFrames), before.resynchronisations,
        static_cast<unsigned long>(before.lostFrames), machine.stalls(), machine.longestMilliseconds());
    EXPECT_EQ(backwards, 0U);
    EXPECT_GT(cycles, 48000U / 512U * DXR_DRIFT_SECONDS * 9 / 10);
    EXPECT_LT(std::sqrt(squares / count), 1.0);
    EXPECT_EQ(after.isCompensated, 1U);
    if (DXR_DRIFT_SECONDS > 60 &&
        machine.stalls() == 0) { // a busy machine may wake a thread late once, even so
        EXPECT_EQ(after.resynchronisations, before.resynchronisations);
        EXPECT_EQ(after.lostFrames, before.lostFrames);
    }
}

} // namespace
