#include "DxrOnPipeWire.h"

#include "FakeCard.h"
#include "MonitorTap.h"
#include "PatientClock.h"

#include <csignal>
#include <sndfile.h>
#include <sys/wait.h>
#include <thread>

namespace {

using nlohmann::json;

std::string outputOf(const std::string& command)
{
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> block{};
    while (const size_t count = std::fread(block.data(), 1, block.size(), pipe))
        output.append(block.data(), count);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

/// What the server's own tool says: the audio nodes by their name.
std::map<std::string, json> dumpedNodes()
{
    std::map<std::string, json> nodes;
    for (const json& object : json::parse(outputOf("pw-dump 2>/dev/null"))) {
        const json props = object.value("/info/props"_json_pointer, json::object());
        if (object.value("type", "") == "PipeWire:Interface:Node" &&
            props.value("media.class", "").starts_with("Audio/"))
            nodes.emplace(props.at("node.name"), object.at("info"));
    }
    return nodes;
}

json routesOf(const std::string& deviceName)
{
    for (const json& object : json::parse(outputOf("pw-dump 2>/dev/null"))) {
        if (object.value("/info/props/device.name"_json_pointer, "") == deviceName)
            return object.at("info").at("params");
    }
    return {};
}

uint32_t portsOf(const json& node, const char* direction)
{
    return node.at(std::string("n-") + direction + "-ports").get<uint32_t>();
}

TEST_F(DxrOnPipeWire, listsWhatTheServersOwnToolReports)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "stereo", .properties = {{"node.description", "Stereo sink"}}});
    devices.plug({.name = "surround", .channelCount = 6});
    devices.plug({.name = "microphone", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    FakeCard card(server.remote(), {.name = "card"});
    devices.view("surround").setVolumes({0.125F, 0.125F, 0.125F, 0.125F, 0.125F, 0.125F});

    const ToolResult listed = runTool({"list", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.errors;
    std::map<std::string, json> byUID;
    for (const json& device : json::parse(listed.output))
        byUID.emplace(device.at("uid"), device);
    const std::map<std::string, json> nodes = dumpedNodes();
    ASSERT_EQ(nodes.size(), 4U);
    EXPECT_EQ(byUID.size(), 4U) << listed.output;
    for (const auto& [name, node] : nodes) {
        ASSERT_TRUE(byUID.contains(name)) << name;
        const json& device = byUID.at(name);
        const bool isSource =
            node.at("props").at("media.class").get<std::string>().starts_with("Audio/Source");
        // Of a sink the output ports are monitors, of a virtual source the inputs are where it is fed.
        EXPECT_EQ(device.at("name"), node.at("props").at("node.description"));
        EXPECT_EQ(device.at("outputs").at("channels"), isSource ? 0U : portsOf(node, "input"));
        EXPECT_EQ(device.at("inputs").at("channels"), isSource ? portsOf(node, "output") : 0U);
        if (!name.starts_with("alsa")) {
            const double linear = node.at("/params/Props/0/channelVolumes/0"_json_pointer);
            EXPECT_NEAR(device.at(isSource ? "inputs" : "outputs").at("volume"), std::cbrt(linear), 1e-4);
            EXPECT_EQ(device.at(isSource ? "inputs" : "outputs").at("mute"),
                      node.at("/params/Props/0/mute"_json_pointer));
        }
    }
    const json params = routesOf(card.deviceName());
    std::vector<std::string> available;
    for (const json& route : params.at("EnumRoute")) {
        if (route.at("available") != "no")
            available.push_back(route.at("description"));
    }
    std::vector<std::string> sources;
    for (const json& source : byUID.at(card.sinkName()).at("outputs").at("sources"))
        sources.push_back(source.at("name"));
    EXPECT_EQ(sources, available);
    EXPECT_EQ(byUID.at(card.sinkName()).at("outputs").at("source").at("name"),
              params.at("/Route/0/description"_json_pointer));
}

constexpr float step = 1.0F / (1U << 24);

/// A WAV file of floats, stereo, whose frame k is (k + 1) / 2^24.
void writeRamp(const std::string& path, int rate, sf_count_t frames)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    std::vector<float> samples(static_cast<size_t>(frames) * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i / 2 + 1) * step;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_EQ(sf_writef_float(file, samples.data(), frames), frames);
    sf_close(file);
}

/// How often a sample does not follow the one before; silence within is one break, silence at the end none.
size_t breaksOf(const std::vector<float>& ramp)
{
    size_t breaks = 0;
    int64_t last = 0;
    bool wasSilent = false;
    for (const float sample : ramp) {
        const int64_t value = std::llround(sample / step);
        breaks += value != 0 && last != 0 && (value != last + 1 || wasSilent);
        wasSilent = value == 0;
        last = value != 0 ? value : last;
    }
    return breaks;
}

// Cycles may be lost on a busy machine; what must not happen is a break that nobody was told of.
TEST_F(DxrOnPipeWire, playsARampThatComesBackExactlyFromTheMonitor)
{
    const PatientClock clock(server.remote());
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink", .properties = {{PW_KEY_NODE_GROUP, PatientClock::group}}});
    for (const int rate : {44100, 48000, 96000}) {
        writeRamp(path("ramp.wav"), rate, rate / 2);
        for (const int frames : {64, 128, 512, 1024}) {
            MonitorTap tap(devices.client(), devices.client().nodeID("sink"), "monitor_FL", 1 << 18);
            const ToolResult played =
                runTool({"play", path("ramp.wav"), "--out", "sink", "--frames", std::to_string(frames)});
            ASSERT_EQ(played.status, 0) << played.errors;
            EXPECT_NE(played.output.find("cycles of " + std::to_string(frames) + " frames"),
                      std::string::npos)
                << played.output;
            const std::vector<float> ramp = tap.finish();
            EXPECT_EQ(numberBefore(played.output, "gap") + numberBefore(played.output, "underrun") +
                          numberBefore(played.output, "overload"),
                      0)
                << played.output;
            EXPECT_EQ(tap.gaps(), 0U);
            EXPECT_EQ(breaksOf(ramp), 0U) << rate << " Hz, " << frames << " frames";
            EXPECT_EQ(std::ranges::count_if(ramp, [](float sample) { return sample != 0.0F; }), rate / 2)
                << "every frame, and each once";
        }
    }
}

/// The first channel of a recording.
std::vector<float> firstChannelOf(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file)
        return {};
    const auto channels = static_cast<size_t>(info.channels);
    std::vector<float> samples(static_cast<size_t>(info.frames) * channels);
    sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    for (size_t frame = 0; frame < samples.size() / channels; ++frame)
        samples[frame] = samples[frame * channels];
    samples.resize(samples.size() / channels);
    return samples;
}

TEST_F(DxrOnPipeWire, recordsExactlyWhatASinkPlays)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "speakers", .properties = {{"node.description", "Speakers"}}});
    devices.view("speakers").setVolumes({0.125F, 0.125F}); // which is the sink's affair
    EXPECT_EQ(runTool({"list"}).output.find("Monitor of"), std::string::npos);
    EXPECT_NE(runTool({"list", "--all"}).output.find("Monitor of Speakers"), std::string::npos);

    constexpr int rate = 48000;
    writeRamp(path("ramp.wav"), rate, rate);
    ToolProcess record({"record", path("heard.wav"), "--in", "Monitor of Speakers"});
    ASSERT_TRUE(record.waitFor("Monitor of Speakers ->")) << record.output() << record.errors();
    const ToolResult played = runTool({"play", path("ramp.wav"), "--out", "Speakers", "--frames", "512"});
    ASSERT_EQ(played.status, 0) << played.errors;
    record.signal(SIGINT);
    EXPECT_EQ(record.finish(), 0) << record.errors();
    const std::vector<float> heard = firstChannelOf(path("heard.wav"));
    const size_t lost =
        static_cast<size_t>(numberBefore(played.output, "gap") + numberBefore(played.output, "underrun") +
                            std::max(0L, numberBefore(record.output(), "gap")) +
                            std::max(0L, numberBefore(record.output(), "overload")));
    EXPECT_LE(breaksOf(heard), 2 * lost) << played.output << record.output();
    if (lost == 0) {
        EXPECT_EQ(std::ranges::count_if(heard, [](float sample) { return sample != 0.0F; }), rate);
    }
}

TEST_F(DxrOnPipeWire, seesTheServerDieAndComeBack)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "first"});
    devices.plug({.name = "second", .mediaClass = "Audio/Duplex"});
    ToolProcess watch({"watch"});
    ASSERT_TRUE(watch.waitFor("second\n")) << watch.output();
    ToolProcess loop({"loop", "--in", "second", "--out", "first"});
    ASSERT_TRUE(loop.waitFor("Sound passes")) << loop.errors(); // both devices run
    const auto start = std::chrono::steady_clock::now();
    server.kill();
    ASSERT_TRUE(watch.waitFor("disconnected  Virtual first") && watch.waitFor("disconnected  Virtual second"))
        << watch.output();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    GTEST_LOG_(INFO) << "told of both " << took.count() << " ms after the kill";
    ASSERT_TRUE(loop.waitFor("is gone; time goes on without a device")) << loop.output();

    server.start();
    VirtualDevices again(server.remote());
    again.plug({.name = "first"});
    ASSERT_TRUE(watch.waitFor("connected     Virtual first")) << watch.output();
    ASSERT_TRUE(loop.waitFor("first is back after")) << loop.output();
    again.plug({.name = "second", .mediaClass = "Audio/Duplex"});
    ASSERT_TRUE(loop.waitFor("second is back after")) << loop.output();
    loop.signal(SIGINT);
    EXPECT_EQ(loop.finish(), 0) << loop.errors();
    EXPECT_GE(numberBefore(loop.output(), "restart"), 2) << loop.output();
    writeRamp(path("ramp.wav"), 48000, 9600);
    EXPECT_EQ(runTool({"play", path("ramp.wav"), "--out", "first"}).status, 0);
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0) << watch.errors();
}

/// How many objects of each type the server has, with the values of its metadata and the names of its nodes.
std::map<std::string, int> serverContents()
{
    std::map<std::string, int> contents;
    for (const json& object : json::parse(outputOf("pw-dump 2>/dev/null"))) {
        ++contents[object.value("type", "")];
        for (const json& entry : object.value("metadata", json::array()))
            ++contents[entry.dump()];
        ++contents[object.value("/info/props/node.name"_json_pointer, "")];
    }
    return contents;
}

bool comesTo(const std::map<std::string, int>& contents)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (serverContents() != contents)
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

// Killed at any moment of a start: while nothing is asked yet, between a request and its answer, while sound runs.
TEST_F(DxrOnPipeWire, leavesNothingOnTheServerWhenItIsKilled)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink", .channelCount = 8});
    devices.plug({.name = "source", .mediaClass = "Audio/Source/Virtual", .channelCount = 8});
    devices.view("sink"); // returns when the server has them all
    const std::map<std::string, int> before = serverContents();
    for (int round = 0; round < 16; ++round) {
        const bool whileItHangs = round % 2 != 0;
        ToolProcess loop({"loop", "--in", "source", "--out", "sink", "--rate", "96000", "--frames", "64"});
        if (whileItHangs) {
            ASSERT_TRUE(loop.waitFor("source ->")) << loop.errors();
            std::this_thread::sleep_for(std::chrono::milliseconds(round));
            server.hang(); // with requests of the start unread
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * round));
        loop.signal(SIGKILL);
        loop.finish();
        server.resume();
        ASSERT_TRUE(comesTo(before)) << "round " << round << "\n" << outputOf("pw-dump");
    }
}

TEST_F(DxrOnPipeWire, stopsAtOnceWhenTheServerHangs)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    const std::string recording = server.folder() / "hung.wav";
    ToolProcess record({"record", recording, "--in", "source"});
    ASSERT_TRUE(record.waitFor("source ->"));
    usleep(700'000);
    server.hang();
    usleep(300'000);
    ToolProcess late({"list"});
    usleep(100'000);
    const auto asked = std::chrono::steady_clock::now();
    late.signal(SIGINT);
    record.signal(SIGINT);
    EXPECT_EQ(late.finish(), 128 + SIGINT);
    EXPECT_EQ(record.finish(), 0) << record.errors();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(10))
        << "a hung server holds nobody";
    server.resume();
    SF_INFO info{};
    SNDFILE* file = sf_open(recording.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr);
    EXPECT_GT(info.frames, 5000);
    sf_close(file);
}

TEST_F(DxrOnPipeWire, printsTheServersNamesSafely)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink", .properties = {{"node.description", "Big Sink \x1B[31m"}}});
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"list"}, {"info", "sink"}}) {
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.output.find("Big Sink \\x1B[31m"), std::string::npos) << result.output;
        EXPECT_EQ(result.output.find('\x1B'), std::string::npos);
    }
}

} // namespace
