#include "PipeWireTest.h"

namespace {

class PipeWireInterruptions : public PipeWireTest {
protected:
    /// The links of the driver's only IO node.
    std::vector<uint32_t> ownLinks()
    {
        return client.idsOf(PW_TYPE_INTERFACE_Link,
                            {{PW_KEY_LINK_OUTPUT_NODE, std::to_string(client.nodeID("dxr"))}});
    }
    void destroyLinks()
    {
        for (const uint32_t link : ownLinks())
            client.destroy(link);
    }
    /// Whether both channels of a ramp that is played to "sink" come out of it.
    bool isPlayed()
    {
        RampCheck played;
        const RunningProc proc(*hal, waitForDevice(*hal, "sink.monitor"), checkingRamp(played));
        return played.waitForMore(4096);
    }
};

TEST(PipeWireStart, failsOnlyWhereNoCycleCanCome)
{
    const std::tuple<const char*, const char*, bool, HALStatus> rows[] = {
        // why, missing module, runs for another client, status
        {"the server takes no node of ours", "client-node", false, kAudioHardwareUnspecifiedError},
        {"it refuses every link", "link-factory", false, kAudioHardwareUnspecifiedError},
        {"the device drives no cycle", "", true, kAudioHardwareUnspecifiedError},
        {"the device drives cycles", "", true, kAudioHardwareNoError},
    };
    for (const auto& [why, missingModule, runsForAnother, status] : rows) {
        SCOPED_TRACE(why);
        PipeWireSetup setup({.withoutModule = missingModule});
        const AudioObjectID device = setup.plug({.name = "sink"});
        RecordingListener running(*setup.hal, device, at(kAudioDevicePropertyDeviceIsRunning));
        pw_proxy* link = nullptr;
        if (runsForAnother) {
            setup.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
            link = setup.client.link(setup.client.nodeID("source"), "capture_FL", setup.client.nodeID("sink"),
                                     "playback_FL");
            ASSERT_TRUE(eventually([&] { return running.count() == 1; }));
            running.clear();
            if (status != kAudioHardwareNoError)
                setup.client.run("pw-cli send-command sink Pause '{}'");
        }
        RunningProc(*setup.hal, device, eachCycle(playRamp), status);
        EXPECT_TRUE(eventually([&] { return setup.ownNodeCount() == 0; })) << "left behind";
        EXPECT_EQ(running.count(), 0U) << "an aggregate would start it again";
        if (link)
            setup.client.destroy(link);
    }
}

TEST_F(PipeWireInterruptions, ioGoesOnAfterAnotherClientHasInterruptedIt)
{
    const AudioObjectID device = plug({.name = "sink"});
    const auto command = [&](const std::string& node, const std::string& name) {
        client.run("pw-cli send-command " + std::to_string(client.nodeID(node)) + " " + name + " '{}'");
    };
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"a link destroyed", [&] { client.destroy(ownLinks().front()); }},
        {"all links destroyed", [&] { destroyLinks(); }},
        {"a port destroyed",
         [&] {
             client.destroy(client.idOf(PW_TYPE_INTERFACE_Port, {{PW_KEY_PORT_NAME, "output_1"}}));
         }},
        {"the node destroyed", [&] { client.destroy(client.nodeID("dxr")); }},
        {"the node paused", [&] { command("dxr", "Pause"); }},
        {"the device suspended", [&] { command("sink", "Suspend"); }},
        {"the device paused", [&] { command("sink", "Pause"); }},
    };
    for (const auto& [what, interrupt] : rows) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(eventually([&] { return ownNodeCount() == 0; })) << "the last row's node";
        CycleWitness witness;
        const RecordingListener overloads(*hal, device, at(kAudioDeviceProcessorOverload));
        const RunningProc proc(*hal, device, eachCycle([&](const IOCycle& cycle) {
            witness.see(cycle);
            playRamp(cycle);
        }));
        for (int time = 0; time < 2; ++time) { // each is reported, however soon it follows
            const size_t before = overloads.count();
            EXPECT_TRUE(eventually([&] { return ownLinks().size() == 2; }));
            interrupt();
            EXPECT_TRUE(eventually([&] { return overloads.count() > before; }));
            EXPECT_TRUE(witness.waitForMore());
        }
        EXPECT_TRUE(becomes(device, kAudioDevicePropertyDeviceIsRunning, 1U));
        EXPECT_EQ(ownNodeCount(), 1U);
        EXPECT_TRUE(isPlayed());
        EXPECT_TRUE(eventually([&] { return ownNodeCount() == 1; }));
        EXPECT_EQ(witness.backwards, 0U);
    }
}

TEST_F(PipeWireInterruptions, anInputIsHeardAgainAfterAnotherClientHasDestroyedItsPort)
{
    const RunningProc played(*hal, plug({.name = "sink"}), eachCycle(playRamp));
    RampCheck heard;
    const RunningProc recorded(*hal, waitForDevice(*hal, "sink.monitor"), checkingRamp(heard));
    EXPECT_TRUE(heard.waitForMore(4096));
    client.destroy(client.idOf(PW_TYPE_INTERFACE_Port, {{PW_KEY_PORT_NAME, "input_1"}}));
    sleepForMilliseconds(100); // the samples that are still on their way
    EXPECT_TRUE(heard.waitForMore(4096));
}

TEST_F(PipeWireInterruptions, aDeviceIsStalledForAsLongAsItsLinksAreRefused)
{
    const AudioObjectID device = plug({.name = "sink"});
    const RunningProc proc(*hal, device, eachCycle(playRamp));
    const auto permit = [&](uint32_t permissions) {
        const uint32_t ours = client.idOf(PW_TYPE_INTERFACE_Client, {{PW_KEY_APP_NAME, "dxr"}});
        const uint32_t factory =
            client.idOf(PW_TYPE_INTERFACE_Factory, {{PW_KEY_FACTORY_NAME, "link-factory"}});
        client.run("pw-cli permissions " + std::to_string(ours) + " " + std::to_string(factory) + " " +
                   std::to_string(permissions));
    };
    permit(0);
    destroyLinks();
    EXPECT_TRUE(becomes(device, kAudioDevicePropertyDeviceIsRunning, 0U));
    sleepForMilliseconds(300); // time for several attempts
    EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyDeviceIsRunning), 0U);
    EXPECT_LE(ownNodeCount(), 1U);
    permit(PW_PERM_ALL);
    EXPECT_TRUE(becomes(device, kAudioDevicePropertyDeviceIsRunning, 1U));
    EXPECT_TRUE(isPlayed());
}

TEST_F(PipeWireInterruptions, followsTheRateAndFramesThatAnotherClientForcesAndReturns)
{
    const AudioObjectID device = plug({.name = "sink"});
    const auto timingBecomes = [&](double rate, uint32_t frames) {
        return becomes(device, kAudioDevicePropertyNominalSampleRate, rate) &&
               becomes(device, kAudioDevicePropertyBufferFrameSize, frames);
    };
    const auto force = [&](const char* rate, const char* frames) {
        client.setMetadata("settings", "clock.force-rate", rate);
        client.setMetadata("settings", "clock.force-quantum", frames);
    };
    const struct {
        const char* why;
        bool runsBefore, runsWhileForced, runsAfter;
    } rows[] = {
        {"it runs all the time", true, true, true},
        {"it starts while the rate is forced", false, true, true},
        {"it stops while the rate is forced, and starts afterwards", true, false, true},
        {"it does not run", false, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        CycleWitness witness;
        std::optional<RunningProc> proc;
        const auto letRun = [&](bool runs) {
            if (runs && !proc)
                proc.emplace(*hal, device, witnessing(witness));
            else if (!runs)
                proc.reset();
        };
        letRun(row.runsBefore);
        force("96000", "256");
        EXPECT_TRUE(timingBecomes(96000.0, 256));
        letRun(row.runsWhileForced);
        EXPECT_TRUE(timingBecomes(96000.0, 256));
        EXPECT_TRUE(!proc || eventually([&] { return witness.frames == 256; }));
        force("0", "0");
        EXPECT_TRUE(timingBecomes(48000.0, 512));
        letRun(row.runsAfter);
        EXPECT_TRUE(!proc || witness.waitForMore());
        EXPECT_TRUE(timingBecomes(48000.0, 512));
        EXPECT_EQ(witness.backwards, 0U);
    }
    const CXRef<HALModel> other = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID same = waitForDevice(*other, "sink");
    EXPECT_EQ(writeValue(*other, same, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
    const RunningProc proc(*other, same, eachCycle(playRamp));
    EXPECT_TRUE(becomes(device, kAudioDevicePropertyNominalSampleRate, 96000.0))
        << "another client runs it at a rate of its own";
}

} // namespace
