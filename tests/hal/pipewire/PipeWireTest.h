#pragma once

#include "HALIO.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/impl.h>

/// A private server, another client of it, and the model over the driver.
struct PipeWireSetup : ModelReads {
    explicit PipeWireSetup(PrivateServer::Options options = {}) : server(std::move(options))
    {
        hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    }
    ~PipeWireSetup() { hal = nullptr; } // before the server ends

    AudioObjectID plug(const VirtualDevice& device)
    {
        client.plug(device);
        return waitForDevice(*hal, device.name);
    }
    /// The number of nodes that the driver has created for IO.
    size_t ownNodeCount() const
    {
        return client.idsOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, "dxr"}}).size();
    }

    PrivateServer server;
    TestClient client{server.remote()};
};

/// An empty metadata object "default", owned by a client.
class ExportedMetadata {
public:
    explicit ExportedMetadata(TestClient& owner)
    {
        owner.locked([&] {
            pw_context* const context = pw_core_get_context(owner.core());
            pw_context_load_module(context, "libpipewire-module-metadata", nullptr, nullptr);
            _metadata = pw_context_create_metadata(context, "default", nullptr, 0);
            _proxy = pw_core_export(owner.core(), PW_TYPE_INTERFACE_Metadata, nullptr, _metadata, 0);
        });
    }
    /// With the owner's loop locked.
    void destroy() const
    {
        pw_proxy_destroy(_proxy);
        pw_impl_metadata_destroy(_metadata);
    }

private:
    pw_impl_metadata* _metadata = nullptr;
    pw_proxy* _proxy = nullptr;
};

class PipeWireTest : public testing::Test, protected PipeWireSetup {
protected:
    using PipeWireSetup::PipeWireSetup;
};

/// Plays a ramp of the sample time in every channel, negated in every second stream.
inline void playRamp(const IOCycle& cycle)
{
    for (uint32_t stream = 0; stream < cycle.output->numberBuffers; ++stream) {
        const uint32_t channels = bufferOf(cycle.output, stream).numberChannels;
        uint64_t sample = static_cast<uint64_t>(cycle.now.sampleTime) * channels;
        for (float& each : cycle.out(stream))
            each = rampSample(sample++ / channels) * (stream % 2 == 0 ? 1.0F : -1.0F);
    }
}

/// Returns an IO callback that only checks the ramp in the first input stream.
inline AudioDeviceIOBlock checkingRamp(RampCheck& check)
{
    return eachCycle(
        [&check](const IOCycle& cycle) { check.see(cycle.in(), bufferOf(cycle.input, 0).numberChannels); });
}
