#include "ToolAudio.h"

namespace {

TEST_F(ToolAudio, loopsEveryFrameToEveryOutputWithAnyCycles)
{
    struct {
        uint32_t inputFrames, outputFrames, blockFrames; // 0: chosen by the devices
        double rate;
    } const rows[] = {{512, 512, 0, 48000},
                      {64, 64, 0, 96000},
                      {128, 1024, 0, 44100},
                      {1000, 100, 0, 48000},
                      {333, 512, 480, 48000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.inputFrames) + " to " + std::to_string(row.outputFrames));
        const DeviceSelection input = plugged(ramp("in")
                                                  .sampleRate(row.rate)
                                                  .bufferFrameSize(row.inputFrames)
                                                  .bufferFrameSizeRange(row.inputFrames, row.inputFrames),
                                              "in", Input);
        const DeviceSelection output = plugged(player("out", played)
                                                   .sampleRate(row.rate)
                                                   .bufferFrameSize(row.outputFrames)
                                                   .bufferFrameSizeRange(row.outputFrames, row.outputFrames),
                                               "out", Output);
        const DeviceSelection also = plugged(player("out2", alsoPlayed).sampleRate(row.rate), "out2", Output);
        RunnerSession session(interrupts,
                              row.blockFrames != 0 ? std::optional(row.blockFrames) : std::nullopt, row.rate);
        const CXRef<LoopPatch> patch = startLoop(session, {input}, {output, also});
        advance(session, 5 * second);
        session.stop();
        EXPECT_EQ(session.lostFrames(), 0U);
        EXPECT_GT(static_cast<double>(patch->framesPassed()), 4.9 * row.rate);
        for (const std::vector<float>* each : {&played, &alsoPlayed}) {
            const std::vector<int64_t> ramp = rampOf(*each);
            EXPECT_GT(static_cast<double>(ramp.size()), 4.5 * row.rate);
            EXPECT_EQ(jumpsIn(ramp), 0U);
        }
        unplugAll();
    }
}

TEST_F(ToolAudio, reportsEveryLostCycleAndIsExactBetweenThem)
{
    const SimulatedDeviceBuilder both =
        player("in", played).inputs(1).hears(simulatedRamp()).bufferFrameSize(64);
    const DeviceSelection input = plugged(both, "in", Input);
    RunnerSession session(interrupts, std::nullopt, std::nullopt);
    startLoop(session, {input}, {DeviceSelection::find("in", Output)});
    advance(session, second);
    for (int i = 0; i < 3; ++i) {
        hal.loseCycles("in", 2);
        advance(session, second / 2);
        settle(); // overloads in quick succession may be reported as one
    }
    session.stop();
    EXPECT_EQ(session.statistics().gaps, 3U);
    EXPECT_EQ(session.lostFrames(), 3U * 2 * 64);
    EXPECT_EQ(session.devices().front().overloads(), 3U);
    EXPECT_EQ(session.statistics().restarts, 0U);
    EXPECT_LE(jumpsIn(rampOf(played)), 6U) << "at the start and the end of each";
    EXPECT_GE(jumpsIn(rampOf(played)), 3U);
}

TEST_F(ToolAudio, followsTheDefaultDevice)
{
    plugged(player("out", played), "out", Output);
    plugged(player("out2", alsoPlayed), "out2", Output);
    const DeviceSelection input = plugged(ramp("in"), "in", Input);
    hal.setDefault(Output, "out");
    settle();
    RunnerSession session(interrupts, 512, 48000);
    startLoop(session, {input}, {DeviceSelection::find("default", Output)});
    advance(session, second / 2);
    EXPECT_TRUE(alsoPlayed.empty());
    hal.setDefault(Output, "out2");
    settle();
    for (int look = 0; look < 10'000 && session.statistics().restarts == 0; ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // for the runner's queue
        session.poll();
    }
    played.clear();
    advance(session, second / 2);
    const std::vector<std::string> messages = session.takeMessages();
    session.stop();
    EXPECT_GT(rampOf(alsoPlayed).size(), 10000U);
    EXPECT_TRUE(rampOf(played).empty());
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_NE(messages[0].find("The default output is now "), std::string::npos) << messages[0];
}

TEST_F(ToolAudio, knowsChannelsFromNamesWithColons)
{
    hal.plug(aDevice().uid("in").name("Desk").inputs(8));
    hal.plug(aDevice().uid("in2").name("usb:1,2").inputs(8));
    hal.plug(aDevice().uid("out").name("usb").inputs(8));
    settle();
    struct {
        std::string text;
        std::string uid; // empty: no such device or channel
        std::vector<uint32_t> channels;
    } const rows[] = {
        {"Desk", "in", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"Desk:2", "in", {2}},
        {"Desk:3-6,1", "in", {3, 4, 5, 6, 1}},
        {"usb:1,2", "in2", {1, 2, 3, 4, 5, 6, 7, 8}}, // complete names take precedence
        {"usb:1,2:1,2", "in2", {1, 2}},
        {R"({"uid":"in"}:7)", "in", {7}},
        {R"({"uid":"in"})", "in", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"Desk:9", "", {}},
        {"Desk:0", "", {}},
        {"Desk:6-3", "", {}},
        {"Desk:1,", "", {}},
        {"Desk:", "", {}},
        {"Desk:1-4294967295", "", {}},
        {"Desk:99999999999", "", {}},
        {":7", "", {}},
        {"nobody:1", "", {}},
    };
    for (const auto& row : rows) {
        if (row.uid.empty()) {
            EXPECT_THROW(DeviceSelection::find(row.text, Input), ToolFailure) << row.text;
            continue;
        }
        const DeviceSelection found = DeviceSelection::find(row.text, Input);
        EXPECT_EQ(found.report.uid, row.uid) << row.text;
        EXPECT_EQ(found.channels, row.channels) << row.text;
    }
    EXPECT_THROW(DeviceSelection::findAll({"Desk:1", "in:2"}, Input), ToolFailure) << "the same twice";
}

} // namespace
