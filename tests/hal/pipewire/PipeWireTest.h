#pragma once

#include "HALIO.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"

/// A private server, another client of it, and the model over the driver.
struct PipeWireSetup {
    explicit PipeWireSetup(PrivateServer::Options options = {}) : server(std::move(options)) {}

    AudioObjectID plug(const VirtualDevice& device)
    {
        client.plug(device);
        return waitForDevice(*hal, device.name);
    }
    template <class Value>
    std::optional<Value> read(AudioObjectID object, uint32_t selector,
                              uint32_t scope = kAudioObjectPropertyScopeGlobal, uint32_t element = 0)
    {
        return readValue<Value>(*hal, object, at(selector, scope, element));
    }
    /// Waits until an object's property has this value. Returns false on timeout.
    template <class Value>
    bool becomes(AudioObjectID object, uint32_t selector, Value value,
                 uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return eventually([&] { return read<Value>(object, selector, scope) == value; });
    }
    /// The number of nodes that the driver has created for IO.
    size_t ownNodeCount() const
    {
        return client.idsOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, "dxr"}}).size();
    }

    PrivateServer server;
    TestClient client{server.remote()};
    CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
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
