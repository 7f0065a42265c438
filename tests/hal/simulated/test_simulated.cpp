#include "simulated.h"

#include "HALIO.h"

namespace {

using SimulatedHardwareIO = SimulatedModel;

TEST_F(SimulatedHardwareIO, electsDefaultsFromWhatIsVisibleAndThere)
{
    const auto defaultOutput = at(kAudioHardwarePropertyDefaultOutputDevice);
    const auto defaultOf = [&](const AudioObjectPropertyAddress& which) {
        return readValue<AudioObjectID>(*model, kAudioObjectSystemObject, which);
    };
    EXPECT_EQ(defaultOf(defaultOutput), kAudioObjectUnknown);
    hal->plug(aDevice().uid("hidden").outputs(2).hidden());
    hal->plug(aDevice().uid("mic").inputs(1));
    hal->plug(aDevice().uid("refuses").outputs(2).canBeDefault(false));
    EXPECT_EQ(defaultOf(defaultOutput), kAudioObjectUnknown);
    const AudioObjectID first = hal->plug(aDevice().uid("first").outputs(2));
    const AudioObjectID second = hal->plug(aDevice().uid("second").outputs(2));
    EXPECT_EQ(defaultOf(defaultOutput), first);
    EXPECT_EQ(defaultOf(at(kAudioHardwarePropertyDefaultInputDevice)), hal->deviceID("mic"));
    EXPECT_EQ(hal->plug(aDevice().uid("first").outputs(2)), kAudioObjectUnknown) << "a UID that is taken";

    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, defaultOutput, second), kAudioHardwareNoError);
    EXPECT_EQ(defaultOf(defaultOutput), second);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, defaultOutput, hal->deviceID("mic")),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, defaultOutput, 0xFFFFFFFFU),
              kAudioHardwareBadDeviceError);
    hal->unplug("second");
    EXPECT_EQ(defaultOf(defaultOutput), first);
}

TEST_F(SimulatedHardwareIO, addsTheOutputsOfCallbacksAndPlaysThemThroughVolumeAndMute)
{
    std::vector<float> played, heard{0.0F, 0.0F, 0.0F};
    const auto sink = [&played](auto, auto, auto, auto, const float* all) {
        for (size_t i = 0; all && i < 3; ++i)
            played[i] = all[i];
    };
    SimulatedDeviceBuilder mix = aDevice().uid("mix").inputs(3).outputs(2).outputs(1);
    mix.channelVolumes(HALDirection::Output, {1.0F, 0.5F, 1.0F}).mute(HALDirection::Output, false);
    const AudioObjectID device = hal->plug(mix.loopsBack().playsInto(sink));
    const auto playing = [&heard](float value) {
        return eachCycle([&heard, value](const IOCycle& cycle) {
            std::ranges::copy(cycle.in().first(3), heard.begin());
            std::ranges::fill(cycle.out(), value);
        });
    };
    const auto nextFrame = [&] {
        const std::vector<float> before = std::exchange(played, std::vector(3, 9.0F));
        hal->stepCycles(1);
        EXPECT_EQ(heard, before) << "loops back a cycle later";
        return played;
    };
    played = heard;
    const RunningProc first(*model, device, playing(0.25F));
    const RunningProc second(*model, device, playing(0.5F));
    EXPECT_EQ(nextFrame(), (std::vector{0.75F, 0.09375F, 0.0F})) << "the second stream is not written to";
    model->stop(device, second.id);
    EXPECT_EQ(nextFrame(), (std::vector{0.25F, 0.03125F, 0.0F}));
    writeValue(*model, device, at(kAudioDevicePropertyMute, output), 1U);
    EXPECT_EQ(nextFrame(), (std::vector{0.0F, 0.0F, 0.0F}));
}

TEST_F(SimulatedHardwareIO, runsOnItsOwnClockAndStampsCyclesAsLateAsAskedFor)
{
    constexpr double lateness = 100e-6, period = 512.0 / (44100.0 * (1.0 + 200e-6));
    const AudioObjectID device =
        hal->plug(aDevice().uid("late").outputs(1).sampleRate(44100.0).drift(200.0).lateness(lateness));
    std::vector<double> late;
    late.reserve(4001); // the callback must not allocate
    CycleWitness witness;
    const uint64_t begin = hal->nowTicks();
    const RunningProc proc(*model, device, eachCycle([&](const IOCycle& cycle) {
        witness.see(cycle);
        const double due = static_cast<double>(late.size() + 1) * period;
        late.push_back(static_cast<double>(cycle.now.hostTime - begin) * 1e-9 - due);
    }));
    hal->stepCycles(4000);
    hal->reconfigure("late", [](SimulatedDeviceBuilder& each) { each.bufferFrameSize(0); });
    hal->advance(1'000'000'000); // without frames there are no cycles
    ASSERT_EQ(late.size(), 4000U);
    std::ranges::sort(late);
    EXPECT_NEAR(late[2000], lateness, 5e-6);
    EXPECT_GE(late.front(), 0.6 * lateness - 1e-8);
    EXPECT_GT(late.back(), 2.0 * lateness);
    EXPECT_EQ(witness.backwards + witness.lostFrames, 0U);
    EXPECT_NEAR(witness.rateScalar, 1.0 - 200e-6, 1e-6);
}

TEST_F(SimulatedHardwareIO, mayBeChangedAndUnpluggedWhileItRunsAlsoByItsOwnCallback)
{
    const AudioObjectID device = hal->plug(aDevice().uid("shape").outputs(2));
    const auto before = readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams));
    std::vector<uint32_t> channels;
    const RunningProc proc(*model, device, eachCycle([&](const IOCycle& cycle) {
        const CXRealtimeExemption exemption("the test makes the change, not the library");
        channels.push_back(cycle.output ? cycle.output->buffers[0].numberChannels : 99);
        if (channels.size() == 1)
            hal->reconfigure("shape", [](SimulatedDeviceBuilder& each) {
                each.noStreams(HALDirection::Output).outputs(6).inputs(1);
            });
        if (channels.size() == 3)
            hal->unplug("shape");
    }));
    hal->stepCycles(2);
    EXPECT_EQ(readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams, output)), before)
        << "the output stream keeps its object";
    hal->reconfigure("shape", [](SimulatedDeviceBuilder& each) { each.noStreams(HALDirection::Output); });
    hal->stepCycles(3);
    EXPECT_EQ(channels, (std::vector<uint32_t>{2, 6, 99}));
    EXPECT_EQ(hal->deviceID("shape"), kAudioObjectUnknown);
}

// A device that is unplugged during any step of its start runs no more cycles.
TEST(SimulatedInRealTime, isSilentAfterAnUnplugThatMeetsAStart)
{
    constexpr int rounds = 400;
    std::array<std::atomic<bool>, rounds> isGone{};
    std::atomic<int> late{0};
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::RealTime);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
    for (int round = 0; round < rounds; ++round) {
        const auto sink = [&, round](auto...) { late += isGone[round]; };
        const AudioObjectID device =
            hal->plug(aDevice().uid("short-lived").outputs(2).bufferFrameSize(32).playsInto(sink));
        AudioDeviceIOProcID proc = nullptr;
        ASSERT_EQ(model->createIOProc(device, idle, proc), kAudioHardwareNoError);
        std::thread start([&] { (void)model->start(device, proc); });
        for (int wait = round % 20; wait > 0; --wait)
            std::this_thread::yield();
        EXPECT_TRUE(hal->unplug("short-lived"));
        start.join();
        isGone[round] = true;
    }
    sleepForMilliseconds(50); // many cycles
    EXPECT_EQ(late, 0);
}

} // namespace
