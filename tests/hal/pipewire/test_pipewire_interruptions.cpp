#include "PipeWireIOTest.h"

#include <atomic>
#include <spa/node/command.h>

namespace {

using namespace std::chrono_literals;

size_t ownNodeCount(const TestClient& client)
{
    return client.idsOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, "dxr"}}).size();
}

/// The links of the one node that IO has.
std::vector<uint32_t> ownLinks(TestClient& client)
{
    return client.idsOf(PW_TYPE_INTERFACE_Link,
                        {{PW_KEY_LINK_OUTPUT_NODE, std::to_string(client.nodeID("dxr"))}});
}

bool isRunning(HALModel& hal, AudioObjectID device)
{
    return readValue<uint32_t>(hal, device, at(kAudioDevicePropertyDeviceIsRunning)) == 1U;
}

TEST(PipeWireInterruptions, aStartFailsWhereNoCycleCanCome)
{
    const struct {
        const char* why;
        const char* missingModule;
        bool isPaused;
    } rows[] = {
        {"the server takes no node of ours", "client-node", false},
        {"it refuses every link", "link-factory", false},
        {"the device drives no cycle", "", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        PrivateServer server({.withoutModule = row.missingModule});
        VirtualDevices devices(server.remote());
        devices.plug({.name = "sink"});
        const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
        const AudioObjectID device = waitForDevice(*hal, "sink");
        TestClient& client = devices.client();
        std::unique_ptr<MonitorTap> keepsItRunning;
        if (row.isPaused) {
            keepsItRunning = std::make_unique<MonitorTap>(client, client.nodeID("sink"), "monitor_FL", 1);
            ASSERT_TRUE(eventually([&] { return isRunning(*hal, device); })); // for the tap
            client.commandNode(client.nodeID("sink"), SPA_NODE_COMMAND_Pause);
        }
        const RunningProc proc(*hal, device, playingRamp());
        EXPECT_EQ(proc.status, kAudioHardwareUnspecifiedError);
        EXPECT_TRUE(eventually([&] { return ownNodeCount(client) == 0; })) << "left behind";
    }
}

TEST(PipeWireInterruptions, ioGoesOnAfterAnotherClientHasInterruptedIt)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    TestClient& client = devices.client();
    const uint32_t sink = client.nodeID("sink");
    const struct {
        const char* what;
        std::function<void()> interrupt;
    } rows[] = {
        {"a link destroyed", [&] { client.destroyObject(ownLinks(client).front()); }},
        {"all links destroyed",
         [&] {
             for (const uint32_t link : ownLinks(client))
                 client.destroyObject(link);
         }},
        {"the node destroyed", [&] { client.destroyObject(client.nodeID("dxr")); }},
        {"the node paused", [&] { client.commandNode(client.nodeID("dxr"), SPA_NODE_COMMAND_Pause); }},
        {"the device suspended", [&] { client.commandNode(sink, SPA_NODE_COMMAND_Suspend); }},
        {"the device paused", [&] { client.commandNode(sink, SPA_NODE_COMMAND_Pause); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::atomic<uint64_t> cycles{0};
        std::atomic<uint64_t> backwards{0};
        const OverloadCounter overloads(*hal, device);
        const RunningProc proc(*hal, device,
                               [&, last = -1.0](const AudioTimeStamp* now, const AudioBufferList*,
                                                const AudioTimeStamp*, AudioBufferList* out,
                                                const AudioTimeStamp*) mutable {
                                   backwards += now->sampleTime <= last;
                                   last = now->sampleTime;
                                   playRamp(*now, out->buffers[0]);
                                   ++cycles;
                               });
        ASSERT_EQ(proc.status, kAudioHardwareNoError);
        const size_t overloadsBefore = overloads.count();
        row.interrupt();
        EXPECT_TRUE(eventually([&] { return overloads.count() > overloadsBefore; }));
        const uint64_t cyclesBefore = cycles;
        EXPECT_TRUE(eventually([&] { return cycles > cyclesBefore + 10 && isRunning(*hal, device); }));
        for (const char* port : {"monitor_FL", "monitor_FR"}) {
            const MonitorTap tap(client, sink, port, 1 << 16);
            EXPECT_TRUE(tap.waitForFrames(4096)) << port;
        }
        EXPECT_EQ(backwards, 0U);
        EXPECT_EQ(ownNodeCount(client), 1U);
    }
}

TEST(PipeWireInterruptions, aDeviceIsStalledForAsLongAsItsLinksAreRefused)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    TestClient& client = devices.client();
    const RunningProc proc(*hal, device, playingRamp());
    EXPECT_TRUE(isRunning(*hal, device));

    const uint32_t ours = client.idOf(PW_TYPE_INTERFACE_Client, {{PW_KEY_APP_NAME, "dxr"}});
    const uint32_t factory = client.idOf(PW_TYPE_INTERFACE_Factory, {{PW_KEY_FACTORY_NAME, "link-factory"}});
    client.permit(ours, factory, 0);
    for (const uint32_t link : ownLinks(client))
        client.destroyObject(link);
    EXPECT_TRUE(eventually([&] { return !isRunning(*hal, device); }));
    std::this_thread::sleep_for(300ms); // some attempts
    EXPECT_FALSE(isRunning(*hal, device));
    EXPECT_LE(ownNodeCount(client), 1U);

    client.permit(ours, factory, PW_PERM_ALL);
    EXPECT_TRUE(eventually([&] { return isRunning(*hal, device); }));
    const MonitorTap tap(client, client.nodeID("sink"), "monitor_FR", 1 << 16);
    EXPECT_TRUE(tap.waitForFrames(4096));
}

TEST(PipeWireInterruptions, theRateComesBackAfterAnotherClientForcedOne)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    MetadataView settings(devices.client(), "settings");
    const auto rateIs = [&](double rate) {
        return eventually([&] {
            return readValue<double>(*hal, device, at(kAudioDevicePropertyNominalSampleRate)) == rate;
        });
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
        std::unique_ptr<RunningProc> proc;
        const auto letRun = [&](bool runs) {
            if (runs && !proc)
                proc = std::make_unique<RunningProc>(*hal, device, playingRamp());
            else if (!runs)
                proc.reset();
        };
        letRun(row.runsBefore);
        settings.set("clock.force-rate", "96000");
        EXPECT_TRUE(rateIs(96000.0));
        letRun(row.runsWhileForced);
        EXPECT_TRUE(rateIs(96000.0));
        settings.set("clock.force-rate", "0");
        EXPECT_TRUE(rateIs(48000.0));
        letRun(row.runsAfter);
        std::this_thread::sleep_for(50ms); // past the first cycles
        EXPECT_TRUE(rateIs(48000.0));
    }
}

} // namespace
