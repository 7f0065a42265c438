#include "simulated.h"

#include "HALReads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

namespace {

std::span<float> samplesOf(const AudioBufferList* list, size_t stream = 0)
{
    const AudioBuffer& buffer = *(&list->buffers[0] + stream);
    return {static_cast<float*>(buffer.data), buffer.dataByteSize / sizeof(float)};
}

AudioDeviceIOProcID started(HALModel& hal, AudioObjectID device, const AudioDeviceIOBlock& block)
{
    AudioDeviceIOProcID proc = nullptr;
    EXPECT_EQ(hal.createIOProc(device, block, proc), kAudioHardwareNoError);
    EXPECT_EQ(hal.start(device, proc), kAudioHardwareNoError);
    return proc;
}

/// Keeps what a device plays, all channels interleaved.
SimulatedSink keepIn(std::vector<float>& played)
{
    return [&played](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
        if (samples)
            played.insert(played.end(), samples, samples + size_t{frames} * channels);
    };
}

AudioDeviceIOBlock playing(float value)
{
    return [value](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList* out,
                   const AudioTimeStamp*) { std::ranges::fill(samplesOf(out), value); };
}

const AudioDeviceIOBlock passingThrough =
    [](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*, AudioBufferList* out,
       const AudioTimeStamp*) { std::ranges::copy(samplesOf(in), samplesOf(out).begin()); };

class SimulatedIO : public testing::Test {
protected:
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
};

TEST_F(SimulatedIO, carriesARampFromTheSourceThroughTheCallbackToTheSinkExactly)
{
    std::vector<float> played;
    const AudioObjectID device = hal->plug(
        aDevice().uid("duplex").inputs(2).outputs(2).hears(simulatedRamp()).playsInto(keepIn(played)));
    started(*model, device, passingThrough);
    hal->stepCycles(100);
    ASSERT_EQ(played.size(), 100U * 512 * 2);
    for (size_t frame = 1; frame < played.size() / 2; ++frame)
        ASSERT_EQ(played[2 * frame], played[2 * frame - 2] + 1.0F / (1U << 24)) << frame;
}

TEST_F(SimulatedIO, addsTheOutputsOfSeveralCallbacks)
{
    std::vector<float> played;
    const AudioObjectID device =
        hal->plug(aDevice().uid("mix").outputs(2).outputs(1).playsInto(keepIn(played)));
    started(*model, device, playing(0.25F));
    const AudioDeviceIOProcID second = started(*model, device, playing(0.5F));
    started(*model, device, playing(-0.125F));
    hal->stepCycles(1);
    EXPECT_TRUE(std::ranges::equal(std::span(played).first(3), std::vector{0.625F, 0.625F, 0.0F}));
    model->stop(device, second);
    hal->stepCycles(1);
    EXPECT_EQ(played.back(), 0.0F) << "the second stream was not written to by anyone";
    EXPECT_EQ(played[played.size() - 3], 0.125F);
}

TEST_F(SimulatedIO, playsThroughVolumeAndMuteByTheSlidersLaw)
{
    std::vector<float> played;
    const AudioObjectID device = hal->plug(aDevice()
                                               .uid("loud")
                                               .outputs(2)
                                               .channelVolumes(HALDirection::Output, {1.0F, 0.5F})
                                               .mute(HALDirection::Output, false)
                                               .playsInto(keepIn(played)));
    started(*model, device, playing(0.8F));
    hal->stepCycles(1);
    EXPECT_FLOAT_EQ(played[0], 0.8F);
    EXPECT_FLOAT_EQ(played[1], 0.1F);
    writeValue(*model, device, at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput), 1U);
    played.clear();
    hal->stepCycles(1);
    EXPECT_TRUE(std::ranges::all_of(played, [](float sample) { return sample == 0.0F; }));
}

TEST_F(SimulatedIO, hearsItselfACycleLater)
{
    const AudioObjectID device = hal->plug(aDevice().uid("loop").inputs(2).outputs(2).loopsBack());
    std::vector<float> heard;
    heard.reserve(16);
    started(*model, device,
            [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*, AudioBufferList* out,
                const AudioTimeStamp*) {
                heard.push_back(samplesOf(in)[0]);
                samplesOf(out)[0] = static_cast<float>(heard.size());
            });
    hal->stepCycles(4);
    EXPECT_EQ(heard, (std::vector{0.0F, 1.0F, 2.0F, 3.0F}));
}

// One simulated hour with clocks that differ: each device must have run as many frames as its own clock says.
TEST_F(SimulatedIO, letsEachDeviceRunOnItsOwnClock)
{
    struct Expected {
        const char* uid;
        double rate, partsPerMillion;
        uint32_t frames;
    };
    const Expected all[] = {
        {"exact", 48000.0, 0.0, 512}, {"fast", 48000.0, 200.0, 256}, {"slow", 44100.0, -500.0, 1024}};
    std::array<double, 3> last{};
    std::array<double, 3> first{};
    for (size_t i = 0; i < 3; ++i) {
        const AudioObjectID device = hal->plug(aDevice()
                                                   .uid(all[i].uid)
                                                   .outputs(1)
                                                   .sampleRate(all[i].rate)
                                                   .drift(all[i].partsPerMillion)
                                                   .bufferFrameSize(all[i].frames));
        started(*model, device,
                [&last, &first, i](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                                   AudioBufferList*, const AudioTimeStamp*) {
                    if (first[i] == 0.0)
                        first[i] = now->sampleTime;
                    EXPECT_LT(last[i], now->sampleTime);
                    last[i] = now->sampleTime;
                });
    }
    hal->advance(3600ULL * 1'000'000'000);
    for (size_t i = 0; i < 3; ++i) {
        const double frames = last[i] - first[i] + 2 * all[i].frames;
        EXPECT_NEAR(frames, 3600.0 * all[i].rate * (1.0 + all[i].partsPerMillion * 1e-6), 2.0 * all[i].frames)
            << all[i].uid;
    }
}

/// Stamps are late by what was asked in the middle, the same in every run, and sample time does not mind.
TEST_F(SimulatedIO, stampsCyclesAsLateAsAskedFor)
{
    constexpr double lateness = 100e-6;
    std::vector<std::vector<double>> runs;
    for (int run = 0; run < 2; ++run) {
        const CXRef<SimulatedHardware> hardware = SimulatedHardware::init(SimulatedClock::Stepped);
        const CXRef<HALModel> own = HALModel::initWithDriver(hardware);
        const AudioObjectID device = hardware->plug(aDevice().uid("late").outputs(1).lateness(lateness));
        std::vector<double>& late = runs.emplace_back(4001); // the callback may not allocate
        const uint64_t first = hardware->nowTicks() + 512 * 1'000'000'000ULL / 48000;
        size_t cycle = 0;
        started(*own, device,
                [&](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                    AudioBufferList*, const AudioTimeStamp*) {
                    const double due = static_cast<double>(cycle) * 512.0 / 48000.0;
                    late[cycle++] = static_cast<double>(now->hostTime - first) * 1e-9 - due;
                });
        hardware->stepCycles(4000);
        late.resize(cycle);
    }
    EXPECT_EQ(runs[0], runs[1]);
    std::ranges::sort(runs[0]);
    EXPECT_NEAR(runs[0][runs[0].size() / 2], lateness, 5e-6);
    EXPECT_GE(runs[0].front(), 0.6 * lateness - 1e-8);
    EXPECT_GT(runs[0].back(), 2.0 * lateness);
}

TEST_F(SimulatedIO, tellsOfLostCyclesByAJumpInSampleTimeAndANotification)
{
    const AudioObjectID device = hal->plug(aDevice().uid("lossy").outputs(2));
    std::vector<double> times;
    times.reserve(16);
    started(*model, device,
            [&](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList*,
                const AudioTimeStamp*) { times.push_back(now->sampleTime); });
    std::atomic<int> overloads{0};
    const HALListener listener{nullptr, nullptr,
                               [&](uint32_t, const AudioObjectPropertyAddress*) { ++overloads; }, nullptr};
    model->addListener(device, at(kAudioDeviceProcessorOverload), listener);
    hal->stepCycles(2);
    EXPECT_TRUE(hal->loseCycles("lossy", 3));
    hal->stepCycles(2);
    hal->settle();
    EXPECT_EQ(overloads, 1);
    ASSERT_EQ(times.size(), 4U);
    EXPECT_EQ(times[2] - times[1], 4 * 512.0);
    EXPECT_EQ(times[3] - times[2], 512.0);
    model->removeListener(device, at(kAudioDeviceProcessorOverload), listener);
}

TEST_F(SimulatedIO, goesOnWhenStreamsChangeUnderACallback)
{
    const AudioObjectID device = hal->plug(aDevice().uid("shape").outputs(2));
    std::atomic<uint32_t> channels{0};
    started(*model, device,
            [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList* out,
                const AudioTimeStamp*) { channels = out ? out->buffers[0].numberChannels : 99; });
    hal->stepCycles(1);
    EXPECT_EQ(channels, 2U);
    const auto before = readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams));
    hal->reconfigure("shape", [](SimulatedDeviceBuilder& each) {
        each.noStreams(HALDirection::Output).outputs(6).inputs(1);
    });
    hal->stepCycles(1);
    EXPECT_EQ(channels, 6U);
    const auto after = readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams));
    ASSERT_EQ(after.size(), 2U);
    EXPECT_EQ(after[1], before[0]) << "the output stream keeps its object by its place";
    hal->reconfigure("shape", [](SimulatedDeviceBuilder& each) { each.noStreams(HALDirection::Output); });
    hal->stepCycles(1);
    EXPECT_EQ(channels, 99U);
}

TEST_F(SimulatedIO, mayBeUnpluggedByItsOwnCallback)
{
    const AudioObjectID device = hal->plug(aDevice().uid("suicidal").outputs(2));
    int calls = 0;
    started(*model, device,
            [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList*,
                const AudioTimeStamp*) {
                const CXRealtimeExemption exemption("pulling the plug is the test's, not the library's");
                ++calls;
                EXPECT_TRUE(hal->unplug("suicidal"));
            });
    hal->stepCycles(3);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(hal->deviceID("suicidal"), kAudioObjectUnknown);
}

} // namespace
