#include "ChannelLayout.h"
#include "DXRDeviceNode.h"
#include "FrameCopy.h"
#include "InstructionSet.h"
#include "ManagedComputer.h"

#include <algorithm>
#include <numeric>

namespace {

using DXRDeviceNodeTest = ManagedComputer;

const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};

/// Streams of these widths, contiguous in memory, with a different value in every sample.
struct Hardware {
    Hardware(const std::vector<uint32_t>& widths, uint32_t frameCount)
        : samples(std::accumulate(widths.begin(), widths.end(), size_t{0}) * frameCount)
    {
        std::iota(samples.begin(), samples.end(), 1.0F);
        float* stream = samples.data();
        for (const uint32_t width : widths) {
            for (uint32_t channel = 0; channel < width; ++channel)
                entries.push_back({stream + channel, width});
            stream += size_t{width} * frameCount;
        }
    }
    std::vector<float> samples;
    std::vector<DXRChannelEntry> entries;
};

std::vector<uint32_t> upTo(uint32_t count)
{
    std::vector<uint32_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 1U);
    return numbers;
}

// The optimised copies must match the plain rule, for all layouts and for lengths around the unrolled loops.
TEST(FrameCopy, movesChannelsAsTheRuleSays)
{
    const struct {
        const char* what;
        std::vector<uint32_t> streams, map;
    } rows[] = {
        {"whole stream", {2}, {1, 2}},
        {"wide stream", {32}, upTo(15)},
        {"swapped", {2}, {2, 1}},
        {"one of many", {8}, {5}},
        {"run in the middle", {9}, {3, 4, 5, 6, 7, 8}},
        {"across streams", {2, 4, 1}, upTo(7)},
        {"planes", {1, 1, 1, 1}, upTo(4)},
        {"more planes than fit at once", std::vector<uint32_t>(11, 1), upTo(11)},
        {"gaps", {2, 1, 1}, {0, 2, 0, 3, 4, 0}},
        {"the same twice", {2, 1}, {1, 1, 3, 3}},
    };
    for (const InstructionSet& set : availableInstructionSets()) {
        useInstructionSet(set);
        for (const auto& row : rows) {
            const std::vector<uint32_t>& map = row.map;
            for (const uint32_t frameCount : {1U, 7U, 8U, 67U}) {
                SCOPED_TRACE(std::string(set.name) + ", " + row.what + ", " + std::to_string(frameCount));
                const auto channels = static_cast<uint32_t>(map.size());
                Hardware hardware(row.streams, frameCount), reference(row.streams, frameCount);
                std::vector<float> frames(size_t{channels} * frameCount, -1), expected = frames;
                const auto byTheRule = [&](const auto& move) {
                    for (uint32_t c = 0; c < channels; ++c) {
                        for (uint32_t k = 0; k < frameCount && map[c] != 0; ++k) {
                            const DXRChannelEntry& entry = reference.entries[map[c] - 1];
                            move(expected[k * channels + c], entry.samples[k * entry.stride]);
                        }
                    }
                };
                byTheRule([](float& frame, float& sample) { frame = sample; });
                copyEntriesToFrames(hardware.entries.data(), map, {frames.data(), channels, frameCount});
                ASSERT_EQ(frames, expected);
                std::ranges::transform(frames, frames.begin(), [](float x) { return -2 * x; });
                expected = frames;
                byTheRule([](float& frame, float& sample) { sample = frame; });
                copyFramesToEntries({frames.data(), channels, frameCount}, map, hardware.entries.data());
                ASSERT_EQ(hardware.samples, reference.samples);
            }
        }
    }
}

// Maps a node's channels to those of its context: parts in any order, absent, unknown, or of another width.
TEST(ChannelLayout, findsEveryChannelOfANodeAmongThoseOfItsContext)
{
    const ChannelPart a{"a", {2, 1}, true}, b{"b", {3, 2}, true}, c{"c", {0, 4}, true};
    ChannelPart absent = a, wide = b;
    absent.isThere = false;
    wide.channelCounts = {5, 2};
    using Map = std::vector<uint32_t>;
    const struct {
        const char* what;
        ChannelLayout node, context;
        Map inputs, outputs;
    } rows[] = {
        {"the device itself", {a}, {a}, {1, 2}, {1}},
        {"behind others", {b}, {a, c, b}, {3, 4, 5}, {6, 7}},
        {"parts in another order", {b, a}, {a, b}, {3, 4, 5, 1, 2}, {2, 3, 1}},
        {"an absent part keeps its place", {absent, b}, {b}, {0, 0, 1, 2, 3}, {0, 1, 2}},
        {"an absent part that the context has", {absent, b}, {a, b}, {0, 0, 3, 4, 5}, {0, 2, 3}},
        {"a part that the context does not have", {a, b}, {c, b}, {0, 0, 1, 2, 3}, {0, 5, 6}},
        {"more channels than the context knows of", {wide}, {a, b}, {3, 4, 5, 0, 0}, {2, 3}},
        {"nothing", {}, {a, b}, {}, {}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(channelMapBetween(row.node, row.context, true), row.inputs) << row.what;
        EXPECT_EQ(channelMapBetween(row.node, row.context, false), row.outputs) << row.what;
    }
}

TEST_F(DXRDeviceNodeTest, takesTheChannelsAskedForOrThePreferredPair)
{
    plug(aDevice().uid("interface").inputs(6).outputs(2).stereoChannels(HALDirection::Input, 3, 4));
    const CXRef<DXRDevice> in = device("interface", input);
    const auto node = DXRDeviceNode::nodeWithDevice(in, std::nullopt, idle);
    EXPECT_EQ(node->channels(), (DXRDeviceNode::Channels{3, 4}));
    node->performIOWithSampleTime(0, nullptr, 0); // does nothing before it starts
    const std::vector<uint32_t> map{7, 8, 0, 10, 11, 12};
    ASSERT_TRUE(node->startIOWithSampleRate(48000, 4, map));
    EXPECT_EQ(node->usageMap(), DXRDeviceNode::Channels{10}) << "a channel without a source is not in use";
    const auto odd = DXRDeviceNode::nodeWithDevice(in, DXRDeviceNode::Channels{7, 0, 2, 2, 1}, idle);
    ASSERT_TRUE(odd->startIOWithSampleRate(48000, 4, map));
    EXPECT_EQ(odd->usageMap(), (DXRDeviceNode::Channels{8, 7})) << "what the device has, once, in order";
    odd->stopIO();
    EXPECT_TRUE(odd->usageMap().empty());
    EXPECT_TRUE(node->isViable());
    unplug("interface");
    EXPECT_FALSE(node->isViable());
}

} // namespace
