#include "CXRealtime.h"
#include "Conformance.h"

#include <deque>

namespace {

using ConformanceIO = Conformance;

TEST_F(ConformanceIO, runsOnlyWhatIsStartedAndNeverRepeatsTime)
{
    const AudioObjectID device = plugged("Runs", 2, 2);
    CycleWitness witness;
    const RecordingListener listener(hal(), device, at(kAudioDevicePropertyDeviceIsRunning));
    AudioDeviceIOProcID proc = nullptr;
    EXPECT_EQ(hal().createIOProc(device, witnessing(witness), proc), kAudioHardwareNoError);
    rig->letTimePass();
    EXPECT_EQ(witness.cycles, 0U);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError);
        EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError) << "starting twice is no error";
        EXPECT_EQ(readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyDeviceIsRunning)), 1U);
        EXPECT_TRUE(waitForMore(witness));
        EXPECT_EQ(hal().stop(device, proc), kAudioHardwareNoError);
        const uint64_t after = witness.cycles;
        rig->letTimePass();
        EXPECT_EQ(witness.cycles, after) << "a stopped callback was called";
        EXPECT_EQ(hal().stop(device, proc), kAudioHardwareNotRunningError);
    }
    EXPECT_EQ(witness.backwards, 0U);
    EXPECT_TRUE(eventually([&] { return listener.count() > 0; }));
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareNoError);
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().start(device, proc), kAudioHardwareIllegalOperationError);
}

TEST_F(ConformanceIO, givesEveryCallbackItsOwnSilentOutput)
{
    const AudioObjectID device = plugged("Mix", 0, 2);
    std::atomic<uint64_t> dirty{0};
    CycleWitness witnesses[3];
    const auto filling = [&dirty](CycleWitness& witness) {
        return eachCycle([&](const IOCycle& cycle) {
            dirty += cycle.input != nullptr; // null without input
            for (float& sample : cycle.out())
                dirty += std::exchange(sample, 0.125F) != 0.0F;
            witness.see(cycle);
        });
    };
    std::deque<RunningProc> procs;
    for (CycleWitness& witness : witnesses)
        procs.emplace_back(hal(), device, filling(witness));
    for (const CycleWitness& witness : witnesses)
        EXPECT_TRUE(waitForMore(witness));
    EXPECT_EQ(dirty, 0U);
}

TEST_F(ConformanceIO, leavesOutStreamsThatACallbackDoesNotUse)
{
    const AudioObjectID device = plugged("Usage", 0, 2);
    std::atomic<uint64_t> withData{0}, without{0};
    AudioDeviceIOProcID proc = nullptr;
    const auto block = eachCycle([&](const IOCycle& cycle) {
        const AudioBuffer& buffer = bufferOf(cycle.output, 0);
        ++(buffer.data || buffer.dataByteSize != 0 ? withData : without);
    });
    hal().createIOProc(device, block, proc);
    AudioHardwareIOProcStreamUsage usage{proc, 1, {0}};
    const auto address = at(kAudioDevicePropertyIOProcStreamUsage, output);
    EXPECT_EQ(writeValue(hal(), device, address, usage), kAudioHardwareNoError);
    usage.streamIsOn[0] = 99;
    uint32_t size = 0;
    EXPECT_EQ(hal().readProperty(device, address, {}, std::as_writable_bytes(std::span(&usage, 1)), size),
              kAudioHardwareNoError);
    EXPECT_EQ(usage.streamIsOn[0], 0U);
    usage.ioProc = &usage;
    EXPECT_EQ(writeValue(hal(), device, address, usage), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError);
    EXPECT_TRUE(eventually([&] { return without > 5; }));
    EXPECT_EQ(withData, 0U);
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareNoError);
}

TEST_F(ConformanceIO, followsAChangeOfFramesAndRateWhileRunning)
{
    const AudioObjectID device = plugged("Changes", 2, 2);
    const auto frames = at(kAudioDevicePropertyBufferFrameSize);
    const auto rate = at(kAudioDevicePropertyNominalSampleRate);
    CycleWitness witness;
    std::atomic<double> rateOnIOThread{0.0};
    std::atomic<uint32_t> framesOnIOThread{0};
    const RunningProc proc(hal(), device, eachCycle([&](const IOCycle& cycle) {
                               witness.see(cycle);
                               rateOnIOThread = readValue<double>(hal(), device, rate).value_or(-1.0);
                               framesOnIOThread = readValue<uint32_t>(hal(), device, frames).value_or(0);
                           }));
    for (const uint32_t value : {256U, 1024U, 512U}) {
        EXPECT_EQ(writeValue(hal(), device, frames, value), kAudioHardwareNoError);
        EXPECT_TRUE(eventually([&] {
            return witness.frames == value && framesOnIOThread == value &&
                   readValue<uint32_t>(hal(), device, frames) == value;
        })) << value;
    }
    for (const double value : {96000.0, 44100.0}) {
        EXPECT_EQ(writeValue(hal(), device, rate, value), kAudioHardwareNoError);
        EXPECT_TRUE(waitForMore(witness)) << value;
        EXPECT_TRUE(eventually([&] {
            return rateOnIOThread == value && readValue<double>(hal(), device, rate) == value;
        })) << value;
    }
    EXPECT_EQ(witness.backwards, 0U);
}

TEST_F(ConformanceIO, letsACallbackStopAndDestroyItself)
{
    const AudioObjectID device = plugged("Ends itself", 0, 2);
    std::atomic<AudioDeviceIOProcID> own{nullptr};
    std::atomic<int> calls{0};
    const RunningProc proc(hal(), device, [&](auto...) {
        if (!own)
            return;
        EXPECT_EQ(hal().stop(device, own), kAudioHardwareNoError);
        EXPECT_EQ(hal().destroyIOProc(device, own), kAudioHardwareNoError);
        ++calls;
    });
    own = proc.id;
    EXPECT_TRUE(eventually([&] { return calls > 0; }));
    const auto isRunning = at(kAudioDevicePropertyDeviceIsRunning);
    EXPECT_TRUE(eventually([&] { return readValue<uint32_t>(hal(), device, isRunning) == 0U; }));
    EXPECT_EQ(calls, 1);
}

TEST_F(ConformanceIO, neverCallsACallbackAfterItsDestruction)
{
    const AudioObjectID device = plugged("Churn", 2, 2);
    CycleWitness steady; // keeps the device running
    const RunningProc proc(hal(), device, witnessing(steady));
    for (int round = 0; round < 50; ++round) {
        auto isDestroyed = std::make_shared<std::atomic<bool>>(false);
        {
            const RunningProc other(hal(), device, [isDestroyed](auto...) { EXPECT_FALSE(*isDestroyed); });
            if (round % 10 == 0)
                rig->letTimePass();
        }
        *isDestroyed = true;
        EXPECT_LE(isDestroyed.use_count(), 1) << "the closure outlived its callback";
    }
    EXPECT_TRUE(waitForMore(steady));
}

TEST_F(ConformanceIO, endsTheCallbacksOfADeviceThatIsUnplugged)
{
    const AudioObjectID device = plugged("Pulled out", 2, 2);
    CycleWitness witness;
    const RunningProc proc(hal(), device, eachCycle([&](const IOCycle& cycle) {
                               witness.see(cycle);
                               // A careless callback: the call may need a lock that the driver holds while it
                               // removes the device.
                               const CXRealtimeExemption waits("the test's own");
                               writeValue(hal(), kAudioObjectSystemObject,
                                          at(kAudioHardwarePropertyDefaultOutputDevice), device);
                           }));
    EXPECT_TRUE(waitForMore(witness));
    rig->unplug(uid);
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
    EXPECT_EQ(hal().stop(device, proc.id), kAudioHardwareBadDeviceError);
    const uint64_t after = witness.cycles;
    rig->letTimePass();
    EXPECT_EQ(witness.cycles, after);
    EXPECT_EQ(hal().destroyIOProc(device, proc.id), kAudioHardwareBadDeviceError);
    AudioDeviceIOProcID none = nullptr;
    EXPECT_EQ(hal().createIOProc(device, witnessing(witness), none), kAudioHardwareBadDeviceError);
}

} // namespace
