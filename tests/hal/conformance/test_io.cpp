#include "Conformance.h"

#include <span>
#include <thread>

namespace {

constexpr uint32_t output = kAudioObjectPropertyScopeOutput;

std::span<float> samplesOf(const AudioBufferList* list, uint32_t stream = 0)
{
    const AudioBuffer& buffer = *(&list->buffers[0] + stream);
    return {static_cast<float*>(buffer.data), buffer.data ? buffer.dataByteSize / sizeof(float) : 0};
}

/// What a callback has seen, kept without locks.
struct Witness {
    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> backwards{0}; // sample times that did not move on by at least the frames before
    std::atomic<uint32_t> frames{0};
    double next = -1.0; // IO thread only

    void see(const AudioTimeStamp& now, uint32_t frameCount)
    {
        if (now.sampleTime < next)
            ++backwards;
        next = now.sampleTime + frameCount;
        frames = frameCount;
        ++cycles;
    }
};

uint32_t framesOf(const AudioBufferList* list)
{
    const AudioBuffer& buffer = list->buffers[0];
    return buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
}

AudioDeviceIOBlock witnessing(Witness& witness)
{
    return [&witness](const AudioTimeStamp* now, const AudioBufferList* in, const AudioTimeStamp*,
                      AudioBufferList* out,
                      const AudioTimeStamp*) { witness.see(*now, framesOf(out ? out : in)); };
}

class ConformanceIO : public Conformance {
protected:
    AudioDeviceIOProcID created(AudioObjectID device, const AudioDeviceIOBlock& block)
    {
        AudioDeviceIOProcID proc = nullptr;
        EXPECT_EQ(hal().createIOProc(device, block, proc), kAudioHardwareNoError);
        EXPECT_NE(proc, nullptr);
        return proc;
    }
    /// What `block` refers to must outlive it: destroy it, or endAll(), before the test's own variables go.
    AudioDeviceIOProcID started(AudioObjectID device, const AudioDeviceIOBlock& block)
    {
        const AudioDeviceIOProcID proc = created(device, block);
        _started.emplace_back(device, proc);
        EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError);
        return proc;
    }
    void endAll()
    {
        for (const auto& [device, proc] : _started)
            hal().destroyIOProc(device, proc);
    }

private:
    std::vector<std::pair<AudioObjectID, AudioDeviceIOProcID>> _started;
};

TEST_F(ConformanceIO, runsOnlyWhatIsStartedAndNeverRepeatsTime)
{
    const AudioObjectID device = plugged("Runs", 2, 2);
    Witness witness;
    const RecordingListener listener(hal(), device, at(kAudioDevicePropertyDeviceIsRunning));
    const AudioDeviceIOProcID proc = created(device, witnessing(witness));
    rig->letTimePass();
    EXPECT_EQ(witness.cycles, 0U);
    for (int round = 0; round < 3; ++round) {
        const uint64_t before = witness.cycles;
        EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError);
        EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError) << "starting twice is no error";
        EXPECT_EQ(readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyDeviceIsRunning)), 1U);
        EXPECT_TRUE(eventually([&] { return witness.cycles > before + 10; }));
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
    std::array<std::atomic<uint64_t>, 3> cycles{};
    for (auto& count : cycles) {
        started(device, [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*,
                            AudioBufferList* out, const AudioTimeStamp*) {
            dirty += in != nullptr; // no input: no list
            for (float& sample : samplesOf(out)) {
                dirty += sample != 0.0F;
                sample = 0.125F;
            }
            ++count;
        });
    }
    EXPECT_TRUE(eventually(
        [&] { return std::ranges::all_of(cycles, [](const auto& count) { return count > 10; }); }));
    endAll();
    EXPECT_EQ(dirty, 0U);
}

TEST_F(ConformanceIO, leavesOutStreamsThatACallbackDoesNotUse)
{
    const AudioObjectID device = plugged("Usage", 0, 2);
    std::atomic<uint64_t> withData{0};
    std::atomic<uint64_t> without{0};
    const AudioDeviceIOProcID proc =
        created(device, [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                            AudioBufferList* out, const AudioTimeStamp*) {
            ++(out->buffers[0].data ? withData : without);
            without += out->buffers[0].data == nullptr && out->buffers[0].dataByteSize != 0 ? 1000000 : 0;
        });
    struct {
        void* ioProc;
        uint32_t numberStreams;
        uint32_t isOn;
    } usage{proc, 1, 0};
    const auto address = at(kAudioDevicePropertyIOProcStreamUsage, output);
    EXPECT_EQ(writeValue(hal(), device, address, usage), kAudioHardwareNoError);
    usage.isOn = 99;
    uint32_t size = 0;
    EXPECT_EQ(hal().readProperty(device, address, {}, std::as_writable_bytes(std::span(&usage, 1)), size),
              kAudioHardwareNoError);
    EXPECT_EQ(usage.isOn, 0U);
    usage.ioProc = &usage;
    EXPECT_EQ(writeValue(hal(), device, address, usage), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().start(device, proc), kAudioHardwareNoError);
    EXPECT_TRUE(eventually([&] { return without > 5; }));
    EXPECT_EQ(withData, 0U);
    EXPECT_LT(without, 1000000U);
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareNoError);
}

TEST_F(ConformanceIO, followsAChangeOfFramesAndRateWhileRunning)
{
    const AudioObjectID device = plugged("Changes", 2, 2);
    Witness witness;
    const AudioDeviceIOProcID proc = started(device, witnessing(witness));
    for (const uint32_t frames : {256U, 1024U, 512U}) {
        EXPECT_EQ(writeValue(hal(), device, at(kAudioDevicePropertyBufferFrameSize), frames),
                  kAudioHardwareNoError);
        EXPECT_TRUE(eventually([&] { return witness.frames == frames; })) << frames;
        EXPECT_TRUE(eventually([&] {
            return readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyBufferFrameSize)) == frames;
        }));
    }
    for (const double rate : {96000.0, 44100.0}) {
        const uint64_t before = witness.cycles;
        EXPECT_EQ(writeValue(hal(), device, at(kAudioDevicePropertyNominalSampleRate), rate),
                  kAudioHardwareNoError);
        EXPECT_TRUE(eventually([&] {
            return readValue<double>(hal(), device, at(kAudioDevicePropertyNominalSampleRate)) == rate &&
                   witness.cycles > before + 5;
        })) << rate;
    }
    EXPECT_EQ(witness.backwards, 0U);
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareNoError);
}

TEST_F(ConformanceIO, answersRateAndFramesOnTheIOThread)
{
    const AudioObjectID device = plugged("Asks", 0, 2);
    std::atomic<double> rate{0.0};
    std::atomic<uint32_t> frames{0};
    started(device, [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                        AudioBufferList*, const AudioTimeStamp*) {
        rate = readValue<double>(hal(), device, at(kAudioDevicePropertyNominalSampleRate)).value_or(-1.0);
        frames = readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyBufferFrameSize)).value_or(0);
    });
    EXPECT_TRUE(eventually([&] { return frames != 0; }));
    EXPECT_EQ(rate, readValue<double>(hal(), device, at(kAudioDevicePropertyNominalSampleRate)));
    endAll();
    EXPECT_EQ(frames, readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyBufferFrameSize)));
}

TEST_F(ConformanceIO, letsACallbackStopAndDestroyItself)
{
    const AudioObjectID device = plugged("Ends itself", 0, 2);
    std::atomic<AudioDeviceIOProcID> own{nullptr};
    std::atomic<int> calls{0};
    std::atomic<HALStatus> stopped{-1};
    std::atomic<HALStatus> destroyed{-1};
    own = started(device, [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                              AudioBufferList*, const AudioTimeStamp*) {
        if (!own)
            return;
        ++calls;
        stopped = hal().stop(device, own);
        destroyed = hal().destroyIOProc(device, own);
    });
    EXPECT_TRUE(eventually([&] { return destroyed != -1; }));
    EXPECT_EQ(stopped, kAudioHardwareNoError);
    EXPECT_EQ(destroyed, kAudioHardwareNoError);
    EXPECT_TRUE(eventually(
        [&] { return readValue<uint32_t>(hal(), device, at(kAudioDevicePropertyDeviceIsRunning)) == 0U; }));
    EXPECT_EQ(calls, 1);
}

TEST_F(ConformanceIO, neverCallsACallbackAfterItsDestruction)
{
    const AudioObjectID device = plugged("Churn", 2, 2);
    Witness steady; // keeps the device running
    started(device, witnessing(steady));
    for (int round = 0; round < 50; ++round) {
        auto isDestroyed = std::make_shared<std::atomic<bool>>(false);
        const AudioDeviceIOProcID proc = started(
            device, [isDestroyed](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                                  AudioBufferList*, const AudioTimeStamp*) { EXPECT_FALSE(*isDestroyed); });
        if (round % 10 == 0)
            rig->letTimePass();
        EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareNoError);
        *isDestroyed = true;
        EXPECT_LE(isDestroyed.use_count(), 1) << "the closure outlived its callback";
    }
    EXPECT_TRUE(eventually([&] { return steady.cycles > 10; }));
    endAll();
}

TEST_F(ConformanceIO, endsTheCallbacksOfADeviceThatIsUnplugged)
{
    std::string uid;
    const AudioObjectID device = plugged("Pulled out", 2, 2, &uid);
    Witness witness;
    const AudioDeviceIOProcID proc = started(device, witnessing(witness));
    EXPECT_TRUE(eventually([&] { return witness.cycles > 5; }));
    rig->unplug(uid);
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
    EXPECT_EQ(hal().stop(device, proc), kAudioHardwareBadDeviceError);
    const uint64_t after = witness.cycles;
    rig->letTimePass();
    EXPECT_EQ(witness.cycles, after);
    EXPECT_EQ(hal().destroyIOProc(device, proc), kAudioHardwareBadDeviceError);
    AudioDeviceIOProcID none = nullptr;
    EXPECT_EQ(hal().createIOProc(device, witnessing(witness), none), kAudioHardwareBadDeviceError);
}

TEST_F(ConformanceIO, startsAndStopsFromSeveralThreadsWhileTheDeviceGoes)
{
    std::string uid;
    const AudioObjectID device = plugged("Contended", 0, 2, &uid);
    std::vector<std::thread> users;
    for (int i = 0; i < 2; ++i) {
        users.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                Witness witness;
                AudioDeviceIOProcID proc = nullptr;
                if (hal().createIOProc(device, witnessing(witness), proc) != kAudioHardwareNoError)
                    return;
                hal().start(device, proc);
                hal().stop(device, proc);
                hal().destroyIOProc(device, proc);
            }
        });
    }
    rig->letTimePass();
    rig->unplug(uid);
    for (std::thread& user : users)
        user.join();
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
}

} // namespace
