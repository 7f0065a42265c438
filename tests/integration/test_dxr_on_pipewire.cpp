#include "DxrOnPipeWire.h"

#include "DrivingDevice.h"
#include "Eventually.h"

namespace {

TEST_F(DxrOnPipeWire, watchesOneObjectForADeviceThatComesBack)
{
    client.plug({.name = "one"});
    ToolProcess watch({"watch", "--identity"});
    ASSERT_TRUE(watch.waitFor("present") && watch.waitFor("]\n")) << watch.output();
    const std::string line = watch.output().substr(watch.output().find("[output 0x"));
    const std::string identity = line.substr(0, line.find("]\n"));
    client.unplug("one");
    ASSERT_TRUE(watch.waitFor("disconnected")) << watch.output();
    client.plug({.name = "one"});
    ASSERT_TRUE(watch.waitFor(" connected ")) << watch.output();
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0) << watch.errors();
    EXPECT_NE(watch.output().find(identity, watch.output().find(" connected ")), std::string::npos)
        << watch.output();

    client.unplug("one");
    ToolProcess list({"list", "--watch"});
    ASSERT_TRUE(list.waitFor("No audio devices.")) << list.output();
    server.kill();
    EXPECT_TRUE(list.waitFor("Waiting: cannot connect")) << list.output();
}

// The monitor's recording is not affected by the sink's volume.
TEST_F(DxrOnPipeWire, playsARampThatComesBackExactlyFromTheMonitor)
{
    const DrivingDevice clock(server.remote(), "clock", DrivingDevice::Direction::Sink,
                              {.patientGroup = "patient"});
    client.plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, "patient"}}});
    client.setVolumes("sink", {0.125F, 0.125F});
    EXPECT_EQ(runTool({"list"}).output.find("Monitor of"), std::string::npos);
    EXPECT_NE(runTool({"list", "--all"}).output.find("Monitor of Virtual sink"), std::string::npos);
    for (const auto& [rate, frames] : {std::pair{48000, 64}, {44100, 128}, {48000, 512}, {96000, 1024}}) {
        SCOPED_TRACE(std::to_string(rate) + " Hz, " + std::to_string(frames) + " frames");
        const std::string rateText = std::to_string(rate), frameText = std::to_string(frames);
        writeWave(path("ramp.wav"), rate, 2, rate / 2,
                  [](int frame, int) { return rampSample(static_cast<uint64_t>(frame)); });
        ToolProcess record({"record", path("heard.wav"), "--in", "Monitor of Virtual sink", "--rate",
                            rateText, "--frames", frameText});
        ASSERT_TRUE(record.waitFor("Monitor of Virtual sink ->")) << record.output() << record.errors();
        const ToolResult played = runTool({"play", path("ramp.wav"), "--out", "sink", "--frames", frameText});
        ASSERT_EQ(played.status, 0) << played.errors;
        EXPECT_NE(played.output.find("cycles of " + frameText + " frames"), std::string::npos)
            << played.output;
        for (const char* loss : {"gap", "underrun", "overload"})
            EXPECT_EQ(sumBefore(played.output, loss), 0) << played.output;
        record.signal(SIGINT);
        EXPECT_EQ(record.finish(), 0) << record.errors();
        RampCheck heard;
        heard.see(samplesOf(path("heard.wav"), 2), 2);
        EXPECT_EQ(heard.frames, static_cast<uint64_t>(rate / 2)) << "each frame once";
        EXPECT_EQ(heard.breaks, 1U) << "at the end";
    }
}

TEST_F(DxrOnPipeWire, stopsWhenTheServerHangs)
{
    client.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    ToolProcess record({"record", path("hung.wav"), "--in", "source"});
    ASSERT_TRUE(record.waitFor("source ->"));
    sleepForMilliseconds(700);
    server.hang();
    sleepForMilliseconds(300);
    ToolProcess late({"list"});
    sleepForMilliseconds(100);
    late.signal(SIGINT);
    record.signal(SIGINT);
    EXPECT_EQ(late.finish(std::chrono::seconds(10)), 128 + SIGINT);
    EXPECT_EQ(record.finish(std::chrono::seconds(10)), 0) << record.errors();
    server.resume();
    EXPECT_GT(samplesOf(path("hung.wav"), 2).size(), 10000U);
}

} // namespace
