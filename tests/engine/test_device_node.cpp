#include "DXRDeviceNode.h"
#include "FrameCopy.h"
#include "InstructionSet.h"
#include "ManagedComputer.h"

#include <algorithm>

namespace {

using DXRDeviceNodeTest = ManagedComputer;

const DXRIOBlock noBlock;
const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};

/// Channels of one kind of hardware layout, in one array: `widths` are its streams' channels.
struct Layout {
    const char* what;
    std::vector<uint32_t> widths;
    std::vector<uint32_t> map; // of the node's channels
};

class Hardware {
public:
    Hardware(const Layout& layout, uint32_t frameCount)
    {
        size_t size = 0;
        for (const uint32_t width : layout.widths)
            size += size_t{width} * frameCount;
        samples.resize(size);
        for (size_t i = 0; i < size; ++i)
            samples[i] = static_cast<float>(i + 1);
        float* stream = samples.data();
        for (const uint32_t width : layout.widths) {
            for (uint32_t channel = 0; channel < width; ++channel)
                entries.push_back({stream + channel, width});
            stream += size_t{width} * frameCount;
        }
    }
    std::vector<float> samples;
    std::vector<DXRChannelEntry> entries;
};

// The fast ways through must do as the plain rule, for layouts of every kind and lengths around the unrolled loops.
TEST(FrameCopy, movesChannelsAsTheRuleSays)
{
    const Layout layouts[] = {
        {"whole stream", {2}, {1, 2}},
        {"wide stream", {32}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
        {"swapped", {2}, {2, 1}},
        {"one of many", {8}, {5}},
        {"run in the middle", {9}, {3, 4, 5, 6, 7, 8}},
        {"across streams", {2, 4, 1}, {1, 2, 3, 4, 5, 6, 7}},
        {"planes", {1, 1, 1, 1}, {1, 2, 3, 4}},
        {"more planes than fit at once",
         {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1},
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {"gaps", {2, 1, 1}, {0, 2, 0, 3, 4, 0}},
        {"the same twice", {2, 1}, {1, 1, 3, 3}},
        {"single", {1}, {1}},
    };
    for (const InstructionSet& set : availableInstructionSets()) {
        useInstructionSet(set);
        for (const Layout& layout : layouts) {
            for (const uint32_t frameCount : {1U, 7U, 8U, 64U, 67U}) {
                SCOPED_TRACE(std::string(set.name) + ", " + layout.what + ", " + std::to_string(frameCount));
                const auto channels = static_cast<uint32_t>(layout.map.size());
                Hardware hardware(layout, frameCount);
                std::vector<float> frames(size_t{channels} * frameCount, -1), expected = frames;
                for (uint32_t c = 0; c < channels; ++c) {
                    for (uint32_t k = 0; k < frameCount && layout.map[c] != 0; ++k) {
                        const DXRChannelEntry& entry = hardware.entries[layout.map[c] - 1];
                        expected[k * channels + c] = entry.samples[k * entry.stride];
                    }
                }
                copyEntriesToFrames(hardware.entries.data(), layout.map,
                                    {frames.data(), channels, frameCount});
                ASSERT_EQ(frames, expected);

                std::ranges::transform(frames, frames.begin(), [](float x) { return -2 * x; });
                Hardware reference = Hardware(layout, frameCount);
                for (uint32_t c = 0; c < channels; ++c) {
                    for (uint32_t k = 0; k < frameCount && layout.map[c] != 0; ++k) {
                        const DXRChannelEntry& entry = reference.entries[layout.map[c] - 1];
                        entry.samples[k * entry.stride] = frames[k * channels + c];
                    }
                }
                copyFramesToEntries({frames.data(), channels, frameCount}, layout.map,
                                    hardware.entries.data());
                ASSERT_EQ(hardware.samples, reference.samples);
            }
        }
    }
}

TEST_F(DXRDeviceNodeTest, takesTheChannelsAskedForOrThePreferredPair)
{
    plug(aDevice().uid("interface").inputs(6).outputs(2).stereoChannels(HALDirection::Input, 3, 4));
    const CXRef<DXRDevice> in = device("interface", input);
    const auto node = DXRDeviceNode::nodeWithDevice(in, std::nullopt, idle);
    EXPECT_EQ(node->channels(), (DXRDeviceNode::Channels{3, 4}));
    EXPECT_EQ(node->deviceUIDs(), std::vector<std::string>{"interface"});
    EXPECT_TRUE(node->isViable());
    EXPECT_NE(node->description().find(", input, interface>"), std::string::npos) << node->description();
    EXPECT_FALSE(DXRDeviceNode::nodeWithDevice(nullptr, std::nullopt, idle));
    EXPECT_FALSE(DXRDeviceNode::nodeWithDevice(in, std::nullopt, noBlock)->isViable());

    const std::vector<uint32_t> map{7, 8, 0, 10, 11, 12};
    node->startIOWithSampleRate(48000, 4, map);
    EXPECT_EQ(node->usageMap(), DXRDeviceNode::Channels{10}) << "a channel without a source is not in use";
    const auto odd = DXRDeviceNode::nodeWithDevice(in, DXRDeviceNode::Channels{7, 0, 2, 2, 1}, idle);
    odd->startIOWithSampleRate(48000, 4, map);
    EXPECT_EQ(odd->usageMap(), (DXRDeviceNode::Channels{8, 7})) << "what the device has, once, in order";
    odd->stopIO();
    EXPECT_TRUE(odd->usageMap().empty());
    unplug("interface");
    EXPECT_FALSE(node->isViable());
}

TEST_F(DXRDeviceNodeTest, hearsBeforeAndPlaysAfterItsBlockSoThatOutputIsABufferLate)
{
    plug(aDevice().uid("duplex").inputs(2).outputs(2));
    float heard[3] = {};
    float next = 1;
    std::vector<float> frames{10, 20};
    const DXRChannelEntry entries[] = {{&frames[0], 2}, {nullptr, 2}};
    const auto in = DXRDeviceNode::nodeWithDevice(
        device("duplex", input), DXRDeviceNode::Channels{2, 1, 9},
        [&](uint64_t, DXRBuffer& buffer) { std::ranges::copy_n(buffer.samples(), 3, std::begin(heard)); });
    const auto out = DXRDeviceNode::nodeWithDevice(device("duplex", output), std::nullopt,
                                                   [&](uint64_t time, DXRBuffer& buffer) {
                                                       EXPECT_EQ(time, 77U);
                                                       buffer.samples()[0] = next++;
                                                       buffer.samples()[1] = next++;
                                                   });
    in->performIOWithSampleTime(0, entries);
    EXPECT_EQ(heard[1], 0) << "not started";
    const std::vector<uint32_t> map{1, 2};
    in->startIOWithSampleRate(48000, 1, map);
    out->startIOWithSampleRate(48000, 1, map);
    in->performIOWithSampleTime(0, entries);
    EXPECT_TRUE(std::ranges::equal(heard, std::vector<float>{0, 10, 0})) << "no data is silence";
    in->performIOWithSampleTime(0, nullptr);
    EXPECT_TRUE(std::ranges::equal(heard, std::vector<float>{0, 0, 0}));

    const DXRChannelEntry both[] = {{&frames[0], 2}, {&frames[1], 2}};
    out->performIOWithSampleTime(77, both);
    EXPECT_EQ(frames, (std::vector<float>{0, 0}));
    out->performIOWithSampleTime(77, nullptr);
    out->performIOWithSampleTime(77, both);
    EXPECT_EQ(frames, (std::vector<float>{3, 4})) << "what the block wrote last";
}

TEST_F(DXRDeviceNodeTest, endsTheProcessWithAClearMessageWhenABlockThrows)
{
    plug(aDevice().uid("thrower").outputs(2));
    const std::vector<uint32_t> map{1, 2};
    for (const bool isKnown : {true, false}) {
        const auto node =
            DXRDeviceNode::nodeWithDevice(device("thrower", output), std::nullopt, [=](uint64_t, DXRBuffer&) {
                if (isKnown)
                    throw std::runtime_error("out of ideas");
                throw 42;
            });
        node->startIOWithSampleRate(48000, 1, map);
        EXPECT_DEATH(node->performIOWithSampleTime(0, nullptr),
                     isKnown ? "IO block of .*thrower.* threw .*out of ideas" : "threw .*unknown kind");
    }
}

} // namespace
