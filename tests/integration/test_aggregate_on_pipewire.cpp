#include "DrivingDevice.h"
#include "HALIO.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "StallWatch.h"

#include <cmath>
#include <cstdio>

namespace {

constexpr int settlingSeconds = 20, measuredSeconds = 600;

TEST(AggregateOnPipeWire, findsTheRatioOfTwoClocksAndLosesNothing)
{
    constexpr double sourcePPM = 150.0, sinkPPM = -60.0;
    const double truth = ((1.0 + sourcePPM * 1e-6) / (1.0 + sinkPPM * 1e-6) - 1.0) * 1e6;
    const PrivateServer server;
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const DrivingDevice source(server.remote(), "source", DrivingDevice::Direction::Source,
                               {.partsPerMillion = sourcePPM});
    const DrivingDevice sink(server.remote(), "sink", DrivingDevice::Direction::Sink,
                             {.partsPerMillion = sinkPPM});
    waitForDevice(*hal, "source");
    waitForDevice(*hal, "sink");
    const AudioObjectID device = makeAggregate(*hal, {"sink", "source"});
    const auto follower = [&] { return subDeviceStatus(*hal, device).at(1); };
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), 512U), kAudioHardwareNoError);
    CycleWitness witness;
    const RunningProc proc(*hal, device, witnessing(witness));
    ASSERT_EQ(proc.status, kAudioHardwareNoError);
    CycleWitness ofSource;
    const RunningProc own(*hal, deviceWithUID(*hal, "source"), witnessing(ofSource));
    EXPECT_TRUE(ofSource.waitForMore());
    EXPECT_NEAR(ofSource.rateScalar, 1.0 / (1.0 + sourcePPM * 1e-6), 1e-9)
        << "a faster clock, shorter frames";
    std::this_thread::sleep_for(std::chrono::seconds(settlingSeconds));
    const AudioAggregateSubDeviceStatus before = follower();
    const StallWatch machine(std::chrono::milliseconds(3)); // the delay has room for 5
    double squares = 0.0, lowest = 1e9, highest = -1e9;
    int count = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(measuredSeconds);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const double error = follower().partsPerMillion - truth;
        squares += error * error;
        lowest = std::min(lowest, error);
        highest = std::max(highest, error);
        ++count;
    }
    const AudioAggregateSubDeviceStatus after = follower();
    std::printf(
        "%d s at 512 frames: ratio %+.4f ppm, truth %+.4f, error %.4f rms, %+.4f to %+.4f; delay "
        "%.0f frames; "
        "%u resynchronisations, %lu frames lost (%u and %lu while starting); the machine stalled %u times, "
        "for up to %.1f ms\n",
        measuredSeconds, after.partsPerMillion, truth, std::sqrt(squares / count), lowest, highest,
        after.inputDelayFrames, after.resynchronisations - before.resynchronisations,
        static_cast<unsigned long>(after.lostFrames - before.lostFrames), before.resynchronisations,
        static_cast<unsigned long>(before.lostFrames), machine.stalls(), machine.longestMilliseconds());
    EXPECT_EQ(witness.backwards, 0U);
    EXPECT_GT(witness.cycles, 48000U / 512U * measuredSeconds * 9 / 10);
    EXPECT_LT(std::sqrt(squares / count), 1.0);
    EXPECT_EQ(after.isCompensated, 1U);
    if (machine.stalls() == 0) {
        EXPECT_EQ(after.resynchronisations, before.resynchronisations);
        EXPECT_EQ(after.lostFrames, before.lostFrames);
    }
}

} // namespace
