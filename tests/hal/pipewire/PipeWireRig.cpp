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
        const std::string uid = "device-" + std::to_string(++_count);
        VirtualDevice device{.name = uid,
                             .channelCount = std::max(inputs, outputs),
                             .properties = {{PW_KEY_NODE_DESCRIPTION, name}}};
        device.mediaClass = inputs == 0    ? "Audio/Sink"
                            : outputs == 0 ? "Audio/Source/Virtual"
                                           : "Audio/Duplex";
#ifdef DXR_TEST_CLOCK_EACH
        device.properties["clock.name"] = "clock." + uid; // no common group: uses bridges
#endif
        _devices.plug(device);
        return uid;
    }
    void unplug(const std::string& uid) override
    {
        _devices.unplug(uid);
    }
    void letTimePass() override
    {
        sleepForMilliseconds(30);
    }

private:
    PrivateServer _server;
    TestClient _devices{_server.remote()};
    const CXRef<HALModel> _model = HALModel::initWithDriver(PipeWireDriver::initWithRemote(_server.remote()));
    int _count = 0;
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
#ifdef DXR_TEST_AGGREGATES
    return std::make_unique<AggregateRig>(std::make_unique<PipeWireRig>());
#else
    return std::make_unique<PipeWireRig>();
#endif
}
