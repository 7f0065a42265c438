#include "AggregateRig.h"
#include "ConformanceRig.h"

#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "TestClient.h"

#include <chrono>
#include <thread>

namespace {

class PipeWireRig final : public ConformanceRig {
public:
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const std::string uid = "device-" + std::to_string(++_count);
        VirtualDevice device{.name = uid, .channelCount = std::max(inputs, outputs)};
        device.mediaClass = inputs == 0    ? "Audio/Sink"
                            : outputs == 0 ? "Audio/Source/Virtual"
                                           : "Audio/Duplex";
        device.properties = {{PW_KEY_NODE_DESCRIPTION, name}};
#ifdef DXR_TEST_CLOCK_EACH
        device.properties["clock.name"] = "clock." + uid; // no common group: uses bridges
#endif
        if (_areNamed)
            _devices.plugExported(device);
        else
            _devices.plug(device);
        return uid;
    }
    void unplug(const std::string& uid) override
    {
        _devices.unplug(uid);
    }
    void rename(const std::string& uid, const std::string& name) override
    {
        _devices.change(uid, {{PW_KEY_NODE_DESCRIPTION, name}});
    }
    void letTimePass() override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }

    // Exports the devices from this process, because no client can rename the server's devices. Only for
    // tests of names: PipeWire's converter then runs in this process, and may crash in IO during its set-up.
    bool prepareNames() override
    {
        return _areNamed = true;
    }

private:
    PrivateServer _server;
    TestClient _devices{_server.remote()};
    const CXRef<HALModel> _model = HALModel::initWithDriver(PipeWireDriver::initWithRemote(_server.remote()));
    int _count = 0;
    bool _areNamed = false;
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
