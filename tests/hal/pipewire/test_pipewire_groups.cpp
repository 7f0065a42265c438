#include "CXValue.h"
#include "DriftingDevice.h"
#include "PipeWireIOTest.h"

#include "HostClock.h"

namespace {

/// A ramp by the sample time in every output stream, below zero in every second one.
AudioDeviceIOBlock playingRamps()
{
    return [](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList* out,
              const AudioTimeStamp*) {
        AudioBuffer* const buffers = out->buffers; // by pointer, past the declared bound of one
        for (uint32_t stream = 0; stream < out->numberBuffers; ++stream) {
            AudioBuffer& buffer = *(buffers + stream);
            playRamp(*now, buffer);
            auto* const samples = static_cast<float*>(buffer.data);
            for (uint32_t i = 0; stream % 2 == 1 && i < buffer.dataByteSize / 4; ++i)
                samples[i] = -samples[i];
        }
    };
}

/// An aggregate of devices of one server, running for as long as this lives.
class Group {
public:
    Group(HALModel& hal, const std::vector<std::string>& uids, const AudioDeviceIOBlock& block)
        : _hal(hal), _device(_aggregateOf(hal, uids)), overloads(hal, _device)
    {
        EXPECT_EQ(_hal.createIOProc(_device, block, _proc), kAudioHardwareNoError);
        status = _hal.start(_device, _proc);
    }
    ~Group() { _hal.destroyAggregateDevice(_device); }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    /// Whether the sub-device at `place` runs.
    bool runs(size_t place) const
    {
        const auto all = readList<AudioAggregateSubDeviceStatus>(
            _hal, _device, at(kAudioAggregateDevicePropertySubDeviceStatus));
        return place < all.size() && all[place].isRunning;
    }

    HALStatus status = kAudioHardwareNoError; ///< of its start

private:
    static AudioObjectID _aggregateOf(HALModel& hal, const std::vector<std::string>& uids)
    {
        static int count = 0;
        CXPlist description{{"uid", "group-" + std::to_string(++count)}, {"subdevices", CXPlist::array()}};
        for (const std::string& uid : uids)
            description["subdevices"].push_back({{"uid", uid}});
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_EQ(hal.createAggregateDevice(*CXValue::initWithPlist(description), device), 0);
        return device;
    }

    HALModel& _hal;
    const AudioObjectID _device;
    AudioDeviceIOProcID _proc = nullptr;

public:
    const OverloadCounter overloads;
};

/// Whether no sample is missing, or a lost cycle was reported: on a shared machine that happens now and then.
bool isWhole(size_t breaks, const Group& group, uint64_t ownGaps = 0)
{
    return breaks == 0 || eventually([&] { return ownGaps + group.overloads.count() > 0; });
}

class PipeWireGroups : public testing::Test {
protected:
    AudioObjectID plug(const VirtualDevice& device)
    {
        devices.plug(device);
        return waitForDevice(*hal, device.name);
    }
    MonitorTap tapOf(const std::string& sink, const std::string& port)
    {
        return {client, client.nodeID(sink), port, 1 << 20};
    }
    template <class Value> std::optional<Value> read(AudioObjectID device, uint32_t selector)
    {
        return readValue<Value>(*hal, device, at(selector));
    }

    PrivateServer server;
    VirtualDevices devices{server.remote()};
    TestClient& client = devices.client();
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
};

TEST_F(PipeWireGroups, theStreamsOfAllMembersPassInOneCycle)
{
    const AudioObjectID duplex = plug({.name = "duplex", .mediaClass = "Audio/Duplex"});
    const AudioObjectID mono = plug({.name = "mono", .channelCount = 1});
    const AudioObjectID silent = plug({.name = "silent", .mediaClass = "Audio/Source/Virtual"});
    std::atomic<uint64_t> heard{0};
    std::atomic<uint64_t> breaks{0};
    const Group group(
        *hal, {"duplex", "mono", "silent"},
        [&, play = playingRamps(), last = int64_t{0}](const AudioTimeStamp* now, const AudioBufferList* in,
                                                      const AudioTimeStamp* inputTime, AudioBufferList* out,
                                                      const AudioTimeStamp* outputTime) mutable {
            play(now, in, inputTime, out, outputTime);
            if (in->numberBuffers != 2 || out->numberBuffers != 2)
                return;
            const auto* samples = static_cast<const float*>(in->buffers[0].data);
            for (uint32_t i = 0; i < in->buffers[0].dataByteSize / 8; ++i) {
                const int64_t value = std::llround(samples[2 * i + 1] / step);
                breaks += last != 0 && value != last + 1;
                last = value;
                heard += value != 0;
            }
        });
    ASSERT_EQ(group.status, kAudioHardwareNoError);
    EXPECT_EQ(client.idsOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, "dxr"}}).size(), 1U);
    for (const AudioObjectID device : {duplex, mono, silent}) {
        EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize), 512U);
        EXPECT_GT(read<double>(device, kAudioDevicePropertyActualSampleRate).value_or(0.0), 0.0);
    }
    MonitorTap first = tapOf("duplex", "capture_FR");
    MonitorTap second = tapOf("mono", "monitor_MONO");
    ASSERT_TRUE(first.waitForFrames(48000) && second.waitForFrames(48000));
    ASSERT_TRUE(eventually([&] { return heard > 48000; }));
    std::vector<float> negative = second.finish();
    for (float& sample : negative)
        sample = -sample;
    EXPECT_TRUE(isWhole(breaksOf(first.finish()), group, first.gaps()));
    EXPECT_TRUE(isWhole(breaksOf(negative), group, second.gaps()));
    EXPECT_TRUE(isWhole(breaks, group));
    EXPECT_LT(breaks * 512, heard / 4) << "even on a busy machine";
}

TEST_F(PipeWireGroups, membersComeAndGoWhileTheOthersGoOn)
{
    plug({.name = "stays"});
    plug({.name = "sink"});
    plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    std::atomic<uint64_t> backwards{0};
    const Group group(
        *hal, {"stays", "sink", "source"},
        [&, play = playingRamp(), last = -1.0](const AudioTimeStamp* now, const AudioBufferList* in,
                                               const AudioTimeStamp* inputTime, AudioBufferList* out,
                                               const AudioTimeStamp* outputTime) mutable {
            backwards += now->sampleTime <= last;
            last = now->sampleTime;
            play(now, in, inputTime, out, outputTime);
        });
    ASSERT_EQ(group.status, kAudioHardwareNoError);
    MonitorTap tap = tapOf("stays", "monitor_FL");
    ASSERT_TRUE(tap.waitForFrames(4096));
    for (int round = 0; round < 5; ++round) {
        for (const auto& [place, name] : {std::pair{1, "sink"}, std::pair{2, "source"}}) {
            devices.unplug(name);
            ASSERT_TRUE(
                eventually([&, gone = name] { return deviceWithUID(*hal, gone) == kAudioObjectUnknown; }));
            plug({.name = name, .mediaClass = place == 1 ? "Audio/Sink" : "Audio/Source/Virtual"});
            EXPECT_TRUE(eventually([&, at = place] { return group.runs(static_cast<size_t>(at)); }));
        }
        MonitorTap returned = tapOf("sink", "monitor_FR");
        ASSERT_TRUE(returned.waitForFrames(4096));
        EXPECT_TRUE(isWhole(breaksOf(returned.finish()), group, returned.gaps()));
    }
    EXPECT_TRUE(isWhole(breaksOf(tap.finish()), group, tap.gaps()));
    EXPECT_EQ(backwards, 0U);
}

TEST_F(PipeWireGroups, devicesThatCannotShareCyclesGetANodeOfTheirOwn)
{
    plug({.name = "sink"});
    plug({.name = "other"});
    plug({.name = "fixed", .properties = {{"audio.rate", "44100"}}});
    const AudioObjectID asked = plug({.name = "asked"});
    DriftingDevice drifting(server.remote(), "drifting", DriftingDevice::Direction::Sink, 100.0);
    waitForDevice(*hal, "drifting");
    ASSERT_EQ(writeValue(*hal, asked, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
    const struct {
        const char* why;
        const char* uid;
        size_t nodes;
    } rows[] = {
        {"one graph", "other", 1},
        {"an absent member", "absent", 1},
        {"a clock of its own", "drifting", 2},
        {"a rate of its own", "fixed", 2},
        {"a client has asked for another rate", "asked", 2},
    };
    for (const auto& row : rows) {
        const Group group(*hal, {"sink", row.uid}, playingRamp());
        EXPECT_EQ(group.status, kAudioHardwareNoError) << row.why;
        EXPECT_TRUE(eventually([&] {
            return client.idsOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, "dxr"}}).size() == row.nodes;
        })) << row.why;
    }
}

TEST_F(PipeWireGroups, anOverloadIsReportedToTheGroupAndToEveryMember)
{
    const AudioObjectID first = plug({.name = "first"});
    const AudioObjectID second = plug({.name = "second"});
    const OverloadCounter ofFirst(*hal, first);
    const OverloadCounter ofSecond(*hal, second);
    const Group group(*hal, {"first", "second"},
                      [count = 0](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                                  AudioBufferList*, const AudioTimeStamp*) mutable {
                          // Computes through several cycles, once.
                          while (++count == 20 && dxr::HostClock::nowTicks() < now->hostTime + 100'000'000)
                              --count;
                      });
    ASSERT_EQ(group.status, kAudioHardwareNoError);
    EXPECT_TRUE(eventually(
        [&] { return group.overloads.count() > 0 && ofFirst.count() > 0 && ofSecond.count() > 0; }));
}

TEST_F(PipeWireGroups, oneMembersRateAndCycleLengthAreTheGroups)
{
    const AudioObjectID first = plug({.name = "first"});
    const AudioObjectID second = plug({.name = "second"});
    std::atomic<uint64_t> ownCycles{0};
    const RunningProc own(*hal, first,
                          [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                              AudioBufferList*, const AudioTimeStamp*) { ++ownCycles; });
    {
        const Group group(*hal, {"first", "second"}, playingRamp());
        ASSERT_EQ(group.status, kAudioHardwareNoError);
        EXPECT_EQ(writeValue(*hal, second, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
        EXPECT_EQ(writeValue(*hal, second, at(kAudioDevicePropertyBufferFrameSize), 1024U), 0);
        for (const AudioObjectID device : {first, second})
            EXPECT_TRUE(eventually([&] {
                return read<double>(device, kAudioDevicePropertyNominalSampleRate) == 96000.0 &&
                       read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize) == 1024U;
            }));
    }
    EXPECT_TRUE(eventually([&, before = ownCycles.load()] { return ownCycles > before + 10; }))
        << "the device's own IO goes on beside the group's and after it";
}

TEST_F(PipeWireGroups, aGroupGoesOnWhenTheServerIsBack)
{
    plug({.name = "sink"});
    std::atomic<uint64_t> cycles{0};
    std::atomic<double> time{0.0};
    const Group group(*hal, {"sink", "absent"},
                      [&](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                          AudioBufferList*, const AudioTimeStamp*) {
                          time = now->sampleTime;
                          ++cycles;
                      });
    ASSERT_TRUE(eventually([&] { return cycles > 10; }));
    server.kill();
    ASSERT_TRUE(eventually([&] { return deviceWithUID(*hal, "sink") == kAudioObjectUnknown; }));
    const double before = time;
    server.start();
    VirtualDevices again(server.remote());
    again.plug({.name = "sink"});
    EXPECT_TRUE(eventually([&, count = cycles.load()] { return cycles > count + 10; }));
    EXPECT_GT(time, before);
}

} // namespace
