#include "simulated.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

namespace {

/// The float samples of the list's first stream.
std::span<float> samplesOf(const AudioBufferList* list)
{
    const AudioBuffer& buffer = list->buffers[0];
    return {static_cast<float*>(buffer.data), buffer.dataByteSize / sizeof(float)};
}

AudioDeviceIOProcID started(const CXRef<SimulatedBackend>& hal, AudioObjectID device,
                            const AudioDeviceIOBlock& block)
{
    AudioDeviceIOProcID proc = nullptr;
    EXPECT_EQ(hal->createIOProc(device, block, proc), kAudioHardwareNoError);
    EXPECT_EQ(hal->start(device, proc), kAudioHardwareNoError);
    return proc;
}

TEST(SimulatedIO, carriesARampFromTheSourceThroughTheCallbackToTheSinkExactly)
{
    const CXRef<SimulatedBackend> hal = SimulatedBackend::init(SimulatedClock::Stepped);
    std::vector<float> played;
    const AudioObjectID device = hal->plug(
        aDevice()
            .uid("duplex")
            .inputs(2)
            .outputs(2)
            .hears(simulatedRamp())
            .playsInto([&](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
                if (samples)
                    played.insert(played.end(), samples, samples + size_t{frames} * channels);
            }));
    std::vector<double> starts;
    started(hal, device,
            [&](const AudioTimeStamp* now, const AudioBufferList* in, const AudioTimeStamp*,
                AudioBufferList* out, const AudioTimeStamp*) {
                starts.push_back(now->sampleTime);
                std::ranges::copy(samplesOf(in), samplesOf(out).begin());
            });
    hal->stepCycles(100);

    ASSERT_EQ(played.size(), 100U * 512 * 2);
    for (size_t frame = 1; frame < played.size() / 2; ++frame)
        ASSERT_EQ(played[2 * frame], played[2 * frame - 2] + 1.0F / (1U << 24)) << frame;
    for (size_t cycle = 1; cycle < starts.size(); ++cycle)
        ASSERT_EQ(starts[cycle], starts[cycle - 1] + 512.0);
}

} // namespace
