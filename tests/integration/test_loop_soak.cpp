#include "DxrOnPipeWire.h"

#include "DrivingDevice.h"

#include <cstdio>
#include <fstream>
#include <thread>

namespace {

using nlohmann::json;
using namespace std::chrono_literals;

int soakSecondsOr(int otherwise)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::atoi(seconds) : otherwise;
}

/// Two sources that each give a ramp and two sinks that check what they receive, all by one clock: nothing has to be
/// converted between them.
struct Studio {
    explicit Studio(const std::string& remote)
        : sources{{remote, "north", DrivingDevice::Direction::Source, {.clockName = "test.studio"}},
                  {remote, "south", DrivingDevice::Direction::Source, {.clockName = "test.studio"}}},
          sinks{{remote, "left", DrivingDevice::Direction::Sink, {.clockName = "test.studio"}},
                {remote, "right", DrivingDevice::Direction::Sink, {.clockName = "test.studio"}}}
    {}

    /// Of all sinks and channels: the most breaks, the fewest frames.
    uint64_t breaks() const
    {
        uint64_t most = 0;
        for (size_t i = 0; i < 4; ++i)
            most = std::max(most, sinks[i / 2].breaks(i % 2));
        return most;
    }
    uint64_t frames() const
    {
        uint64_t fewest = UINT64_MAX;
        for (size_t i = 0; i < 4; ++i)
            fewest = std::min(fewest, sinks[i / 2].framesReceived(i % 2));
        return fewest;
    }

    DrivingDevice sources[2], sinks[2];
};

/// One channel of each source, side by side, on both sinks.
std::vector<std::string> studioCommand(std::vector<std::string> command, int frames, int seconds)
{
    for (const char* each : {"--in", "north:1", "--in", "south:2", "--out", "left", "--out", "right",
                             "--rate", "48000", "--frames"})
        command.emplace_back(each);
    command.push_back(std::to_string(frames));
    command.emplace_back("--seconds");
    command.push_back(std::to_string(seconds));
    return command;
}

/// The sum of what stands before `words` in every line of the report.
long sumBefore(std::string report, const std::string& words)
{
    long sum = 0;
    for (size_t at = report.find(" " + words); at != std::string::npos; at = report.find(" " + words)) {
        sum += std::max(0L, numberBefore(report, words));
        report.erase(0, at + 1);
    }
    return sum;
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
    const long gaps = numberBefore(loop.output, "gap");
    const long late = numberBefore(loop.output, "by us");
    ASSERT_TRUE(gaps >= 0 && late >= 0) << loop.output;
    EXPECT_GT(studio.frames(), 48000U * static_cast<uint64_t>(seconds) * 9 / 10);
    const long reported = gaps + sumBefore(loop.output, "overload") +
                          sumBefore(loop.output, "resynchronisation") +
                          sumBefore(loop.output, "frames lost") + sumBefore(loop.output, "frame lost");
    // What is missing is faded out and in, for 64 frames each, and so is the end of it all; where nothing is missing, every
    // frame is the one it was.
    EXPECT_LE(studio.breaks(), static_cast<uint64_t>((2 + 2 * 64) * reported + 64)) << loop.output;
    if (seconds >= 60) { // on a machine that has nothing else to do
        EXPECT_EQ(late, 0) << loop.output;
    }
}

INSTANTIATE_TEST_SUITE_P(Frames, LoopSoak, testing::Values(64, 128, 512));

// The blocks are called all the time, by a timer without a server; the trace records both.
TEST_F(TraceSoak, keepsTimeWhileTheServerIsGone)
{
    const int seconds = soakSecondsOr(8);
    const auto away = seconds >= 60 ? 5000ms : 1500ms;
    auto studio = std::make_unique<Studio>(server.remote());
    ToolProcess trace(studioCommand({"trace", path("trace.json")}, 128, seconds));
    ASSERT_TRUE(trace.waitFor("48 kHz")) << trace.errors();
    std::this_thread::sleep_for(std::chrono::milliseconds(250 * seconds));
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
    std::printf("%s", trace.output().c_str());
    EXPECT_GT(studio->frames(), 4800U) << "sound is back";

    std::map<std::string, long> cycles;
    uint64_t next = 0, longestStep = 0;
    double longestPause = 0.0, last = 0.0;
    for (const json& event : json::parse(std::ifstream(path("trace.json")))) {
        const std::string name = event.at("name");
        if (event.at("ph") != "X" || !name.ends_with(" cycle"))
            continue;
        ++cycles[name];
        const uint64_t time = event.at("args").at("sample time");
        EXPECT_GE(time, next) << "the runner's time never goes back";
        longestStep = std::max(longestStep, time - std::min(time, next));
        next = time + event.at("args").at("runner frames").get<uint64_t>();
        const double at = event.at("ts");
        longestPause = std::max(longestPause, at - (last == 0.0 ? at : last));
        last = at;
    }
    std::printf(
        "%ld cycles of all devices, %ld of some, %ld of the timer; longest step of the sample time %lu "
        "frames, longest time without a cycle %.1f ms\n",
        cycles["aggregate cycle"], cycles["device cycle"], cycles["timer cycle"], longestStep,
        longestPause / 1e3);
    EXPECT_GT(cycles["timer cycle"], away / 1ms * 48 / 128 / 2);
    EXPECT_GT(cycles["aggregate cycle"], 375);
    EXPECT_LT(static_cast<double>(longestStep), longestPause * 0.048 + 4 * 128)
        << "of what was missed, at most";
    EXPECT_LT(longestPause, 2e6);
    EXPECT_TRUE(std::filesystem::exists(path("trace.svg")));
}

} // namespace
