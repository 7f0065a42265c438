#include "ContentOf.h"
#include "DrivingDevice.h"
#include "DxrOnPipeWire.h"
#include "HALIO.h"
#include "PipeWireDriver.h"

#include <sys/wait.h>

namespace {

/// A computer of the document: a private server, and the commands that the document runs on it.
class Machine {
public:
    explicit Machine(std::string machineName) : _name(std::move(machineName)) {}
    ~Machine()
    {
        for (const pid_t process : _running)
            endPrivateProcess(process, SIGKILL);
    }

    /// Runs the document's commands for this computer whose text contains `part`, and waits until they end.
    void run(const std::string& part)
    {
        int status = -1;
        waitpid(_start("set -e\n" + _commands(part)), &status, 0);
        EXPECT_EQ(status, 0) << part;
    }
    /// The same, for one command that runs until end().
    void begin(const std::string& part) { _running.push_back(_start("exec " + _commands(part))); }
    /// Ends the command that was begun last.
    void end(int signal)
    {
        endPrivateProcess(_running.back(), signal);
        _running.pop_back();
    }

    PrivateServer server{{.sessionManager = true}};

private:
    std::string _commands(const std::string& part) const
    {
        const std::string text = contentOf(DXR_DOCUMENT), opening = "```sh " + _name + "\n";
        for (size_t begin = 0; (begin = text.find(opening, begin)) != std::string::npos;) {
            begin += opening.size();
            const std::string commands = text.substr(begin, text.find("```", begin) - begin);
            if (commands.find(part) != std::string::npos)
                return commands;
        }
        ADD_FAILURE() << "nothing for the " << _name << " about " << part;
        return {};
    }
    pid_t _start(const std::string& commands)
    {
        const std::string tools = std::filesystem::path(DXR_TOOL).parent_path();
        // Ports that differ from those of concurrent runs of this test.
        const int port = 20000 + getpid() % 20000;
        return startPrivateProcess({"sh", "-c", "cd; " + commands}, server.folder(),
                                   {"DESK=127.0.0.1", "SAP_PORT=" + std::to_string(port),
                                    "PORT=" + std::to_string(port + 20000),
                                    "PATH=" + tools + ":/usr/local/bin:/usr/bin:/bin"});
    }

    const std::string _name;
    std::vector<pid_t> _running;
};

class SeveralMachines : public testing::Test {
protected:
    SeveralMachines()
    {
        studio.run("to-desk.conf <<");
        desk.run("from-others.conf <<");
        desk.begin("pipewire -c");
        studio.begin("pipewire -c");
        const CXRef<HALModel> atTheStudio =
            HALModel::initWithDriver(PipeWireDriver::initWithRemote(studio.server.remote()));
        EXPECT_NE(waitForDevice(*atTheStudio, "to-desk"), kAudioObjectUnknown);
        EXPECT_NE(waitForDevice(*hal, "Studio A"), kAudioObjectUnknown);
    }

    Machine studio{"studio"}, desk{"desk"};
    const CXRef<HALModel> hal =
        HALModel::initWithDriver(PipeWireDriver::initWithRemote(desk.server.remote())); // the desk's devices
};

void writeTone(const std::string& path, int seconds)
{
    writeWave(path, 48000, 2, 48000 * seconds, [](int frame, int) { return 0.5 * std::sin(frame * 0.05); });
}

TEST_F(SeveralMachines, areOneAggregateAsTheDocumentShows)
{
    TestClient client(desk.server.remote());
    client.plug({.name = "Desk Microphone", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    const AudioObjectID first = deviceWithUID(*hal, "Studio A");
    EXPECT_EQ(readValue<uint32_t>(*hal, first, at(kAudioDevicePropertyTransportType)),
              kAudioDeviceTransportTypeNetwork);
    EXPECT_EQ(readValue<uint32_t>(*hal, first, at(kAudioDevicePropertyLatency, input)), 2400U) << "50 ms";
    EXPECT_EQ(channelsOf(*hal, first, input), 2U);

    writeTone(studio.server.folder() / "song.wav", 8);
    studio.begin("dxr play");
    desk.run("dxr record");
    studio.end(SIGINT);
    const std::vector<float> recorded = samplesOf(desk.server.folder() / "both.wav", 3);
    ASSERT_FALSE(recorded.empty());
    float peaks[3]{};
    for (size_t i = 0; i < recorded.size(); ++i)
        peaks[i % 3] = std::max(peaks[i % 3], recorded[i]);
    EXPECT_NEAR(peaks[0], 0.5F, 0.1F);
    EXPECT_NEAR(peaks[1], 0.5F, 0.1F);
    EXPECT_EQ(peaks[2], 0.0F) << "the microphone's";

    studio.end(SIGKILL);
    studio.begin("pipewire -c");
    EXPECT_TRUE(eventually([&] {
        const AudioObjectID second = deviceWithUID(*hal, "Studio A");
        return second != kAudioObjectUnknown && second != first;
    })) << "the new sender has the UID";
    EXPECT_NE(waitForDevice(*hal, "Studio A#2"), kAudioObjectUnknown) << "and the one left over another";
}

// Two sinks with different clocks play what another machine sends. The network node follows one of them.
TEST_F(SeveralMachines, driftIsFoundWhileOnePlaysWhatTheOtherSends)
{
    const int seconds = soakSecondsOr(8);
    const DrivingDevice fast(desk.server.remote(), "fast", DrivingDevice::Direction::Sink,
                             {.partsPerMillion = 300});
    const DrivingDevice slow(desk.server.remote(), "slow", DrivingDevice::Direction::Sink,
                             {.partsPerMillion = -200});
    writeTone(studio.server.folder() / "song.wav", seconds + 30);
    studio.begin("dxr play");
    setenv("PIPEWIRE_REMOTE", desk.server.remote().c_str(), 1);
    const ToolResult loop = runTool({"loop", "--in", "Studio A", "--out", "fast", "--out", "slow", "--frames",
                                     "512", "--seconds", std::to_string(seconds)},
                                    std::chrono::seconds(seconds + 60));
    studio.end(SIGINT);
    EXPECT_EQ(loop.status, 0) << loop.errors;
    std::printf("%s", loop.output.c_str());
    std::vector<double> drifts = numbersBefore(loop.output, "ppm");
    drifts.push_back(0.0); // the clock device's
    EXPECT_NEAR(std::ranges::max(drifts) - std::ranges::min(drifts), 500.0, seconds >= 60 ? 1.0 : 150.0);
    EXPECT_GE(fast.received.frames, 48000U * static_cast<uint64_t>(seconds) * 9 / 10);
}

} // namespace
