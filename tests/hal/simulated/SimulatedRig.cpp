#include "AggregateRig.h"
#include "simulated.h"

namespace {

constexpr SimulatedClock clockUnderTest = SimulatedClock::DXR_TEST_CLOCK;

class SimulatedRig final : public ConformanceRig {
public:
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        SimulatedDeviceBuilder device = aDevice().uid(name).name(name).clockDomain(DXR_TEST_CLOCK_DOMAIN);
        if (inputs > 0)
            device.inputs(inputs);
        if (outputs > 0)
            device.outputs(outputs).volume(HALDirection::Output, 0.5F).mute(HALDirection::Output, false);
        _hal->plug(device);
        return name;
    }
    void unplug(const std::string& uid) override { _hal->unplug(uid); }
    void letTimePass() override
    {
        if (clockUnderTest == SimulatedClock::Stepped)
            _hal->stepCycles(4);
        else
            ConformanceRig::letTimePass();
        _hal->settle();
    }

private:
    const CXRef<SimulatedHardware> _hal = SimulatedHardware::init(clockUnderTest);
    const CXRef<HALModel> _model = HALModel::initWithDriver(_hal);
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    return AggregateRig::wrapIf(DXR_TEST_AGGREGATES, std::make_unique<SimulatedRig>());
}
