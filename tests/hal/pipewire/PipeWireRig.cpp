#include "AggregateRig.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "TestClient.h"

namespace {

class PipeWireRig final : public ConformanceRig {
public:
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        VirtualDevice device{.name = name, .channelCount = std::max(inputs, outputs)};
        device.properties[PW_KEY_NODE_DESCRIPTION] = name;
        device.mediaClass = inputs == 0    ? "Audio/Sink"
                            : outputs == 0 ? "Audio/Source/Virtual"
                                           : "Audio/Duplex";
        if (DXR_TEST_CLOCK_EACH)
            device.properties["clock.name"] = "clock." + name;
        _devices.plug(device);
        return name;
    }
    void unplug(const std::string& uid) override { _devices.unplug(uid); }

private:
    PrivateServer _server;
    TestClient _devices{_server.remote()};
    const CXRef<HALModel> _model = HALModel::initWithDriver(PipeWireDriver::initWithRemote(_server.remote()));
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    return AggregateRig::wrapIf(DXR_TEST_AGGREGATES, std::make_unique<PipeWireRig>());
}
