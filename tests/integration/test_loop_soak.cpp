#include "DxrOnPipeWire.h"

#include "DriftingDevice.h"

#include <cstdio>

namespace {

/// Loops a ramp from one device's clock to another's and compares what arrived with what the tool reported.
class LoopSoak : public DxrOnPipeWire, public testing::WithParamInterface<int> {};

TEST_P(LoopSoak, losesNothingThatItDoesNotReport)
{
    DriftingDevice source(server.remote(), "source", DriftingDevice::Direction::Source, 0.0);
    DriftingDevice sink(server.remote(), "sink", DriftingDevice::Direction::Sink, 0.0);
    const std::string frames = std::to_string(GetParam());
    const ToolResult loop = runTool(
        {"loop", "--in", "source", "--out", "sink", "--frames", frames, "--seconds", DXR_LOOP_SECONDS},
        std::chrono::seconds(120));
    EXPECT_EQ(loop.status, 0) << loop.errors;
    std::printf("%s", loop.output.c_str());
    const long gaps = numberBefore(loop.output, "gap");
    const long overloads = numberBefore(loop.output, "overload");
    const long underruns = numberBefore(loop.output, "underrun");
    const long overruns = numberBefore(loop.output, "overrun");
    ASSERT_TRUE(gaps >= 0 && overloads >= 0 && underruns >= 0 && overruns >= 0);
    std::printf("sink: %lu frames of the ramp came, %lu breaks\n", sink.framesReceived(), sink.breaks());
    EXPECT_GT(sink.framesReceived(), 48000U * std::stoul(DXR_LOOP_SECONDS) * 9 / 10);
    const size_t second = loop.output.find("output:"); // the output's own gaps come after the input's
    const long outputGaps = second == std::string::npos ? 0 : numberBefore(loop.output.substr(second), "gap");
    // A lost cycle breaks the ramp where it is left out and where it is taken up again.
    EXPECT_LE(sink.breaks(),
              static_cast<uint64_t>(2 * (gaps + outputGaps + overloads + underruns + overruns)));
}

INSTANTIATE_TEST_SUITE_P(Frames, LoopSoak, testing::Values(64, 128, 512));

} // namespace
