#include "DxrOnPipeWire.h"

#include "DrivingDevice.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

using nlohmann::json;
using namespace std::chrono_literals;

/// Two sources that each generate a ramp and two sinks that check what they receive. All use one clock, so
/// that nothing has to be converted.
struct Studio {
    explicit Studio(const std::string& remote)
        : sources{{remote, "north", DrivingDevice::Direction::Source, {.clockName = "test.studio"}},
                  {remote, "south", DrivingDevice::Direction::Source, {.clockName = "test.studio"}}},
          sinks{{remote, "left", DrivingDevice::Direction::Sink, {.clockName = "test.studio"}},
                {remote, "right", DrivingDevice::Direction::Sink, {.clockName = "test.studio"}}}
    {}

    /// Over all sinks and channels: the most breaks, the fewest frames.
    uint64_t breaks() const { return std::max<uint64_t>(sinks[0].received.breaks, sinks[1].received.breaks); }
    uint64_t frames() const { return std::min<uint64_t>(sinks[0].received.frames, sinks[1].received.frames); }

    DrivingDevice sources[2], sinks[2];
};

/// Appends options that route one channel of each source to both sinks.
std::vector<std::string> studioCommand(std::vector<std::string> command, int frames, int seconds)
{
    std::istringstream options("--in north:1 --in south:2 --out left --out right --rate 48000 --frames " +
                               std::to_string(frames) + " --seconds " + std::to_string(seconds));
    command.insert(command.end(), std::istream_iterator<std::string>(options), {});
    return command;
}

class LoopSoak : public DxrOnPipeWire, public testing::WithParamInterface<int> {};
using TraceSoak = DxrOnPipeWire;

TEST_P(LoopSoak, losesNothingThatItDoesNotReport)
{
    const int seconds = soakSecondsOr(3);
    Studio studio(server.remote());
    const ToolResult loop =
        runTool(studioCommand({"loop"}, GetParam(), seconds), std::chrono::seconds(seconds + 30));
    EXPECT_EQ(loop.status, 0) << loop.errors;
    std::printf("%s%s: at least %lu frames of a ramp in each channel, at most %lu breaks\n",
                loop.output.c_str(), loop.errors.c_str(), studio.frames(), studio.breaks());
    const long late = sumBefore(loop.output, "by us");
    ASSERT_GE(late, 0) << loop.output;
    EXPECT_GT(studio.frames(), 48000U * static_cast<uint64_t>(seconds) * 9 / 10);
    const long reported = sumBefore(loop.output, "(gap|overload|resynchronisation|frames? lost)");
    ASSERT_GE(reported, 0) << loop.output;
    // Each gap is faded out and in, for 64 frames each, and the end is faded out; other frames are unchanged.
    EXPECT_LE(studio.breaks(), static_cast<uint64_t>((3 + 2 * 64) * reported + 65)) << loop.output;
    EXPECT_TRUE(seconds < 60 || late == 0) << "in a soak, on an otherwise idle machine: " << loop.output;
}

INSTANTIATE_TEST_SUITE_P(Frames, LoopSoak, testing::Values(64, 128, 512));

// Blocks are called continuously, by a timer while there is no server; the trace records both.
TEST_F(TraceSoak, keepsTimeWhileTheServerIsGone)
{
    const int seconds = soakSecondsOr(8);
    const auto away = seconds >= 60 ? 5000ms : 1500ms;
    auto studio = std::make_unique<Studio>(server.remote());
    ToolProcess trace(studioCommand({"trace", path("trace.json")}, 128, seconds));
    ASSERT_TRUE(trace.waitFor("48 kHz")) << trace.errors();
    sleepForMilliseconds(250 * seconds);
    EXPECT_GT(studio->frames(), 4800U);
    server.kill();
    ASSERT_TRUE(trace.waitFor("is gone; time goes on without a device")) << trace.output();
    studio.reset();
    std::this_thread::sleep_for(away);
    server.start();
    studio = std::make_unique<Studio>(server.remote());
    for (const char* name : {"north", "south", "left", "right"})
        EXPECT_TRUE(trace.waitFor(std::string(name) + " is back after")) << trace.output();
    EXPECT_EQ(trace.finish(std::chrono::seconds(seconds + 30)), 0) << trace.errors();
    EXPECT_GT(studio->frames(), 4800U) << "sound is back";

    std::map<std::string, long> cycles;
    uint64_t next = 0;
    for (const json& event : json::parse(std::ifstream(path("trace.json")))) {
        const std::string name = event.at("name");
        if (event.at("ph") != "X" || !name.ends_with(" cycle"))
            continue;
        ++cycles[name];
        const uint64_t time = event.at("args").at("sample time");
        EXPECT_GE(time, next) << "the runner's time never goes back";
        next = time + event.at("args").at("runner frames").get<uint64_t>();
    }
    EXPECT_GT(cycles["timer cycle"], away / 1ms * 48 / 128 / 2);
    EXPECT_GT(cycles["aggregate cycle"], 375);
    EXPECT_TRUE(std::filesystem::exists(path("trace.svg")));
}

} // namespace
