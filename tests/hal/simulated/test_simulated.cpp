#include "simulated.h"

#include "HALIO.h"

namespace {

/// Records what a device plays, all channels interleaved.
SimulatedSink keepIn(std::vector<float>& played)
{
    return [&played](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
        if (samples)
            played.insert(played.end(), samples, samples + size_t{frames} * channels);
    };
}

AudioDeviceIOBlock playing(float value)
{
    return eachCycle([value](const IOCycle& cycle) { std::ranges::fill(cycle.out(), value); });
}

class SimulatedHardwareIO : public testing::Test {
protected:
    AudioObjectID defaultOf(uint32_t selector)
    {
        return readValue<AudioObjectID>(*model, kAudioObjectSystemObject, at(selector)).value_or(0xFFFFFFFF);
    }

    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
};

TEST_F(SimulatedHardwareIO, electsDefaultsFromWhatIsVisibleAndThere)
{
    constexpr uint32_t selector = kAudioHardwarePropertyDefaultOutputDevice;
    EXPECT_EQ(defaultOf(selector), kAudioObjectUnknown);
    hal->plug(aDevice().uid("hidden").outputs(2).hidden());
    hal->plug(aDevice().uid("mic").inputs(1));
    hal->plug(aDevice().uid("refuses").outputs(2).canBeDefault(false));
    EXPECT_EQ(defaultOf(selector), kAudioObjectUnknown);
    const AudioObjectID first = hal->plug(aDevice().uid("first").outputs(2));
    const AudioObjectID second = hal->plug(aDevice().uid("second").outputs(2));
    EXPECT_EQ(defaultOf(selector), first);
    EXPECT_EQ(defaultOf(kAudioHardwarePropertyDefaultInputDevice), hal->deviceID("mic"));
    EXPECT_EQ(hal->plug(aDevice().uid("first").outputs(2)), kAudioObjectUnknown) << "a UID that is taken";

    hal->settle();
    const RecordingListener listener(*model, kAudioObjectSystemObject, anyAddress);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(selector), second), kAudioHardwareNoError);
    EXPECT_EQ(defaultOf(selector), second);
    hal->settle();
    EXPECT_TRUE(listener.includes(at(selector)));
    for (const AudioObjectPropertyAddress& each : listener.announced())
        EXPECT_TRUE(each == at(selector) || each == at(kAudioHardwarePropertyDefaultSystemOutputDevice));
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(selector), hal->deviceID("mic")),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(selector), 0xFFFFFFFFU),
              kAudioHardwareBadDeviceError);
    hal->unplug("second");
    EXPECT_EQ(defaultOf(selector), first);
}

TEST_F(SimulatedHardwareIO, addsTheOutputsOfCallbacksAndPlaysThemThroughVolumeAndMute)
{
    std::vector<float> played;
    const AudioObjectID device = hal->plug(aDevice()
                                               .uid("mix")
                                               .outputs(2)
                                               .outputs(1)
                                               .channelVolumes(HALDirection::Output, {1.0F, 0.5F, 1.0F})
                                               .mute(HALDirection::Output, false)
                                               .playsInto(keepIn(played)));
    const auto nextFrame = [&] {
        played.clear();
        hal->stepCycles(1);
        return std::vector(played.begin(), played.begin() + 3);
    };
    const RunningProc first(*model, device, playing(0.25F));
    const RunningProc second(*model, device, playing(0.5F));
    EXPECT_EQ(nextFrame(), (std::vector{0.75F, 0.09375F, 0.0F})) << "the second stream is not written to";
    model->stop(device, second.id);
    EXPECT_EQ(nextFrame(), (std::vector{0.25F, 0.03125F, 0.0F}));
    writeValue(*model, device, at(kAudioDevicePropertyMute, output), 1U);
    EXPECT_EQ(nextFrame(), (std::vector{0.0F, 0.0F, 0.0F}));
}

TEST_F(SimulatedHardwareIO, hearsItselfACycleLater)
{
    const AudioObjectID device = hal->plug(aDevice().uid("loop").inputs(2).outputs(2).loopsBack());
    std::vector<float> received;
    received.reserve(16);
    const RunningProc proc(*model, device, eachCycle([&](const IOCycle& cycle) {
        received.push_back(cycle.in()[0]);
        cycle.out()[0] = static_cast<float>(received.size());
    }));
    hal->stepCycles(4);
    EXPECT_EQ(received, (std::vector{0.0F, 1.0F, 2.0F, 3.0F}));
}

// One simulated hour with different clocks: each device must run as many frames as its clock counts.
TEST_F(SimulatedHardwareIO, letsEachDeviceRunOnItsOwnClock)
{
    const struct {
        const char* uid;
        double rate, partsPerMillion;
        uint32_t frames;
    } rows[] = {{"exact", 48000.0, 0.0, 512}, {"fast", 48000.0, 200.0, 256}, {"slow", 44100.0, -500.0, 1024}};
    CycleWitness witnesses[3];
    std::vector<std::unique_ptr<RunningProc>> procs;
    for (const auto& row : rows) {
        const AudioObjectID device = hal->plug(aDevice()
                                                   .uid(row.uid)
                                                   .outputs(1)
                                                   .sampleRate(row.rate)
                                                   .drift(row.partsPerMillion)
                                                   .bufferFrameSize(row.frames));
        CycleWitness& witness = witnesses[procs.size()];
        procs.push_back(std::make_unique<RunningProc>(*model, device, witnessing(witness)));
    }
    hal->advance(3600ULL * 1'000'000'000);
    for (size_t i = 0; i < 3; ++i) {
        const double frames = static_cast<double>(witnesses[i].cycles) * rows[i].frames;
        EXPECT_NEAR(frames, 3600.0 * rows[i].rate * (1.0 + rows[i].partsPerMillion * 1e-6),
                    2.0 * rows[i].frames)
            << rows[i].uid;
        EXPECT_EQ(witnesses[i].backwards + witnesses[i].lostFrames, 0U);
        EXPECT_NEAR(witnesses[i].rateScalar, 1.0 - rows[i].partsPerMillion * 1e-6, 1e-6);
    }
    procs.clear();
}

/// The median lateness of stamps is as requested, all runs are the same, and sample times are unaffected.
TEST_F(SimulatedHardwareIO, stampsCyclesAsLateAsAskedFor)
{
    constexpr double lateness = 100e-6;
    std::vector<std::vector<double>> runs;
    for (int run = 0; run < 2; ++run) {
        const CXRef<SimulatedHardware> hardware = SimulatedHardware::init(SimulatedClock::Stepped);
        const CXRef<HALModel> own = HALModel::initWithDriver(hardware);
        const AudioObjectID device = hardware->plug(aDevice().uid("late").outputs(1).lateness(lateness));
        std::vector<double>& late = runs.emplace_back(4001); // allocated here: the callback must not
        const uint64_t first = hardware->nowTicks() + 512 * 1'000'000'000ULL / 48000;
        size_t cycle = 0;
        const RunningProc proc(*own, device, eachCycle([&](const IOCycle& now) {
            const double due = static_cast<double>(cycle) * 512.0 / 48000.0;
            late[cycle++] = static_cast<double>(now.now.hostTime - first) * 1e-9 - due;
        }));
        hardware->stepCycles(4000);
        late.resize(cycle);
    }
    EXPECT_EQ(runs[0], runs[1]);
    std::ranges::sort(runs[0]);
    EXPECT_NEAR(runs[0][runs[0].size() / 2], lateness, 5e-6);
    EXPECT_GE(runs[0].front(), 0.6 * lateness - 1e-8);
    EXPECT_GT(runs[0].back(), 2.0 * lateness);
}

TEST_F(SimulatedHardwareIO, reportsLostCyclesByAJumpInSampleTimeAndANotification)
{
    const AudioObjectID device = hal->plug(aDevice().uid("lossy").outputs(2));
    CycleWitness witness;
    const RunningProc proc(*model, device, witnessing(witness));
    const RecordingListener overloads(*model, device, at(kAudioDeviceProcessorOverload));
    hal->stepCycles(2);
    EXPECT_TRUE(hal->loseCycles("lossy", 3));
    hal->stepCycles(2);
    hal->settle();
    EXPECT_EQ(overloads.count(), 1U);
    EXPECT_EQ(witness.cycles, 4U);
    EXPECT_EQ(witness.lostFrames, 3 * 512U);
}

TEST_F(SimulatedHardwareIO, mayBeChangedAndUnpluggedWhileItRunsAlsoByItsOwnCallback)
{
    const AudioObjectID device = hal->plug(aDevice().uid("shape").outputs(2));
    const auto streams = [&] {
        return readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams));
    };
    const auto before = streams();
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
    const auto after = streams();
    ASSERT_EQ(after.size(), 2U);
    EXPECT_EQ(after[1], before[0]) << "the output stream keeps its object by its place";
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
        const AudioObjectID device =
            hal->plug(aDevice()
                          .uid("short-lived")
                          .outputs(2)
                          .bufferFrameSize(32)
                          .playsInto([&, round](uint64_t, uint32_t, uint32_t, double, const float*) {
                              late += isGone[round];
                          }));
        AudioDeviceIOProcID proc = nullptr;
        ASSERT_EQ(model->createIOProc(device, playing(0.5F), proc), kAudioHardwareNoError);
        std::thread start([&] { (void)model->start(device, proc); });
        for (int wait = round % 20; wait > 0; --wait)
            std::this_thread::yield();
        EXPECT_TRUE(hal->unplug("short-lived"));
        start.join();
        isGone[round] = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // many cycles
    EXPECT_EQ(late, 0);
}

} // namespace
