#include "DXRDeviceNode.h"
#include "FrameCopy.h"
#include "InstructionSet.h"
#include "ManagedComputer.h"

#include <numeric>

namespace {

using DXRDeviceNodeTest = ManagedComputer;

const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};

// The optimised copies must match the plain rule, for all layouts and for lengths around the unrolled loops.
TEST(FrameCopy, movesChannelsAsTheRuleSays)
{
    const std::tuple<const char*, std::vector<uint32_t>, std::vector<uint32_t>> rows[] = {
        // what, streams, map
        {"whole stream", {2}, {1, 2}},
        {"wide stream", {32}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
        {"swapped", {2}, {2, 1}},
        {"one of many", {8}, {5}},
        {"run in the middle", {9}, {3, 4, 5, 6, 7, 8}},
        {"across streams", {2, 4, 1}, {1, 2, 3, 4, 5, 6, 7}},
        {"planes", {1, 1, 1, 1}, {1, 2, 3, 4}},
        {"more planes than fit at once", std::vector<uint32_t>(11, 1), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {"gaps", {2, 1, 1}, {0, 2, 0, 3, 4, 0}},
        {"the same twice", {2, 1}, {1, 1, 3, 3}},
    };
    const auto check = [](const std::vector<uint32_t>& streams, const std::vector<uint32_t>& map,
                          uint32_t frameCount) {
        std::vector<float> samples(2200);
        std::iota(samples.begin(), samples.end(), 1.0F);
        std::vector<DXRChannelEntry> entries;
        size_t begin = 0; // of the stream
        for (const uint32_t width : streams) {
            for (uint32_t channel = 0; channel < width; ++channel)
                entries.push_back({samples.data() + begin + channel, width});
            begin += size_t{width} * frameCount;
        }
        const auto channels = static_cast<uint32_t>(map.size());
        std::vector<float> frames(size_t{channels} * frameCount, -1);
        copyEntriesToFrames(entries.data(), map, {frames.data(), channels, frameCount});
        std::vector<float> expected = samples;
        for (uint32_t i = 0; i < channels * frameCount; ++i) {
            const uint32_t channel = map[i % channels], frame = i / channels;
            const DXRChannelEntry entry = channel == 0 ? DXRChannelEntry{} : entries[channel - 1];
            ASSERT_EQ(frames[i], channel == 0 ? -1 : entry.samples[frame * entry.stride]);
            frames[i] *= -2;
            if (channel != 0)
                expected[static_cast<size_t>(entry.samples - samples.data()) + frame * entry.stride] =
                    frames[i];
        }
        copyFramesToEntries({frames.data(), channels, frameCount}, map, entries.data());
        ASSERT_EQ(samples, expected);
    };
    for (const InstructionSet& set : availableInstructionSets()) {
        useInstructionSet(set);
        for (const auto& [what, streams, map] : rows)
            for (const uint32_t frameCount : {1U, 7U, 8U, 67U}) {
                SCOPED_TRACE(std::string(set.name) + ", " + what + ", " + std::to_string(frameCount));
                check(streams, map, frameCount);
            }
    }
}

TEST_F(DXRDeviceNodeTest, takesTheChannelsAskedForOrThePreferredPair)
{
    plug(aDevice().uid("interface").inputs(6).stereoChannels(HALDirection::Input, 3, 4));
    using Channels = DXRDeviceNode::Channels;
    const std::vector<uint32_t> map{7, 8, 0, 10, 11, 12};
    const auto used = [&](const std::optional<Channels>& channels) {
        const auto node = DXRDeviceNode::nodeWithDevice(device("interface", input), channels, idle);
        node->performIOWithSampleTime(0, nullptr, 0); // does nothing before it starts
        EXPECT_TRUE(node->isViable() && node->startIOWithSampleRate(48000, 4, map));
        const Channels inUse = node->usageMap();
        node->stopIO();
        EXPECT_TRUE(node->usageMap().empty());
        return inUse;
    };
    EXPECT_EQ(used(std::nullopt), Channels{10}) << "a channel without a source is not in use";
    EXPECT_EQ(used(Channels{7, 0, 2, 2, 1}), (Channels{8, 7})) << "what the device has, once, in order";
}

} // namespace
