#include "AggregateRig.h"
#include "simulated.h"

namespace {

#ifdef DXR_TEST_REAL_TIME
constexpr SimulatedClock clockUnderTest = SimulatedClock::RealTime;
#else
constexpr SimulatedClock clockUnderTest = SimulatedClock::Stepped;
#endif

class SimulatedRig final : public ConformanceRig {
public:
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const std::string uid = "simulated-" + std::to_string(++_count);
        SimulatedDeviceBuilder device = aDevice().uid(uid).name(name);
#ifdef DXR_TEST_ONE_CLOCK
        device.clockDomain(1);
#endif
        if (inputs > 0)
            device.inputs(inputs);
        if (outputs > 0)
            device.outputs(outputs).volume(HALDirection::Output, 0.5F).mute(HALDirection::Output, false);
        _hal->plug(device);
        return uid;
    }
    void unplug(const std::string& uid) override
    {
        _hal->unplug(uid);
    }
    void letTimePass() override
    {
        if (clockUnderTest == SimulatedClock::Stepped)
            _hal->stepCycles(4);
        else
            sleepForMilliseconds(30);
        _hal->settle();
    }

private:
    const CXRef<SimulatedHardware> _hal = SimulatedHardware::init(clockUnderTest);
    const CXRef<HALModel> _model = HALModel::initWithDriver(_hal);
    int _count = 0;
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
#ifdef DXR_TEST_AGGREGATES
    return std::make_unique<AggregateRig>(std::make_unique<SimulatedRig>());
#else
    return std::make_unique<SimulatedRig>();
#endif
}
