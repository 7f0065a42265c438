#include "MonitorTap.h"
#include "PrivateServer.h"
#include "ToolProcess.h"
#include "VirtualDevices.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <algorithm>
#include <csignal>

namespace {

using Clock = std::chrono::steady_clock;

/// The command against a sound server of its own, with a sink and a source.
class DxrOnPipeWire : public testing::Test {
protected:
    DxrOnPipeWire()
    {
        setenv("XDG_RUNTIME_DIR", server.folder().c_str(), 1);
        devices.plug({.name = "sink", .properties = {{"node.description", "Big Sink \x1B[31m"}}});
        devices.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    }
    double secondsSince(Clock::time_point then) const
    {
        return std::chrono::duration<double>(Clock::now() - then).count();
    }

    PrivateServer server;
    VirtualDevices devices{server.remote()};
};

std::string writeRamp(const PrivateServer& server, int rate, sf_count_t frames)
{
    const std::string path = server.folder() / "ramp.wav";
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    for (sf_count_t frame = 1; frame <= frames; ++frame) {
        const float pair[] = {static_cast<float>(frame) / 16777216.0F, 0.5F};
        sf_writef_float(file, pair, 1);
    }
    sf_close(file);
    return path;
}

TEST_F(DxrOnPipeWire, playsBitByBitAtEveryRateAndCycle)
{
    size_t exact = 0;
    for (const int rate : {44100, 48000, 96000}) {
        for (const int frames : {64, 128, 512, 1024}) {
            const auto count = static_cast<size_t>(rate / 4 + 17);
            const std::string path = writeRamp(server, rate, static_cast<sf_count_t>(count));
            MonitorTap tap(devices.client(), devices.client().nodeID("sink"), "monitor_FL", count + 100'000);
            const ToolResult result =
                runTool({"play", path, "--out", "sink", "--frames", std::to_string(frames)});
            ASSERT_EQ(result.status, 0) << result.errors;
            const std::vector<float> heard = tap.finish();
            if (tap.gaps() > 0 || result.output.find(" 0 gaps") == std::string::npos)
                continue; // a busy machine, and both have said so
            ASSERT_GE(heard.size(), count) << rate << " " << frames << "\n" << result.output;
            for (size_t frame = 0; frame < count; ++frame)
                ASSERT_EQ(heard[frame] * 16777216.0F, static_cast<float>(frame + 1))
                    << rate << " " << frames << "\n"
                    << result.output;
            EXPECT_TRUE(std::all_of(heard.begin() + static_cast<ptrdiff_t>(count), heard.end(),
                                    [](float sample) { return sample == 0.0F; }));
            ++exact;
        }
    }
    EXPECT_GE(exact, 4U) << "too busy a machine to tell";
}

TEST_F(DxrOnPipeWire, tellsWithinASecondThatTheServerIsGone)
{
    ToolProcess watch({"watch", "--json"});
    ToolProcess loop({"loop", "--in", "source", "--out", "sink"});
    ASSERT_TRUE(loop.waitFor("The ring adds"));
    ASSERT_TRUE(watch.waitFor("\"source\""));
    const Clock::time_point killed = Clock::now();
    server.kill();
    ASSERT_TRUE(watch.waitFor("\"disconnected\""));
    EXPECT_LT(secondsSince(killed), 1.0);
    EXPECT_EQ(loop.finish(), 1);
    EXPECT_LT(secondsSince(killed), 3.0);
    EXPECT_NE(loop.errors().find("the device is gone\n"), std::string::npos) << loop.errors();
    EXPECT_EQ(std::ranges::count(loop.errors(), '\n'), 1);

    server.start();
    VirtualDevices again(server.remote());
    again.plug({.name = "sink"});
    ASSERT_TRUE(watch.waitFor("\"connected\""));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0);
    EXPECT_EQ(runTool({"info", "sink"}).status, 0);
}

TEST_F(DxrOnPipeWire, stopsAtOnceWhenTheServerHangs)
{
    const std::string recording = server.folder() / "hung.wav";
    ToolProcess record({"record", recording, "--in", "source"});
    ASSERT_TRUE(record.waitFor("source ->"));
    usleep(700'000);
    server.hang();
    usleep(300'000);
    ToolProcess late({"list"});
    usleep(100'000);
    const Clock::time_point asked = Clock::now();
    late.signal(SIGINT);
    record.signal(SIGINT);
    EXPECT_EQ(late.finish(), 128 + SIGINT);
    EXPECT_EQ(record.finish(), 0) << record.errors();
    EXPECT_LT(secondsSince(asked), 1.5);
    server.resume();
    SF_INFO info{};
    SNDFILE* file = sf_open(recording.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr);
    EXPECT_GT(info.frames, 5000);
    sf_close(file);
}

TEST_F(DxrOnPipeWire, printsTheServersNamesSafely)
{
    for (const char* command : {"list", "info"}) {
        std::vector<std::string> arguments{command};
        if (arguments.front() == "info")
            arguments.push_back("sink");
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.output.find("Big Sink \\x1B[31m"), std::string::npos) << result.output;
        EXPECT_EQ(result.output.find('\x1B'), std::string::npos);
    }
}

} // namespace
