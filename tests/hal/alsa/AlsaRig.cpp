#include "AggregateRig.h"
#include "AlsaDriver.h"
#include "FakedCards.h"

namespace {

class AlsaRig final : public ConformanceRig {
public:
    ~AlsaRig() override { FakedCards::unplugAll(); }
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const std::string uid = "alsa:" + name + ":0";
        _cards[uid] =
            FakedCards::plug({.name = name, .longName = name, .playback = outputs, .capture = inputs});
        return uid;
    }
    void unplug(const std::string& uid) override { FakedCards::unplug(_cards.at(uid)); }

private:
    const CXRef<HALModel> _model = HALModel::initWithDriver(AlsaDriver::init(3, "/nowhere"));
    std::map<std::string, int> _cards;
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    return AggregateRig::wrapIf(DXR_TEST_AGGREGATES, std::make_unique<AlsaRig>());
}
