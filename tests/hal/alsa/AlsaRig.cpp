#include "AggregateRig.h"
#include "AlsaDriver.h"
#include "FakedCards.h"

#include <map>

namespace {

class AlsaRig final : public ConformanceRig {
public:
    ~AlsaRig() override { FakedCards::unplugAll(); }
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const std::string unit = "unit " + std::to_string(++_count);
        const std::string uid = "alsa:" + unit + ":0";
        _cards[uid] =
            FakedCards::plug({.name = name, .longName = unit, .playback = outputs, .capture = inputs});
        return uid;
    }
    void unplug(const std::string& uid) override { FakedCards::unplug(_cards.at(uid)); }
    void letTimePass() override { sleepForMilliseconds(30); }

private:
    const CXRef<HALModel> _model = HALModel::initWithDriver(AlsaDriver::init(3, "/nowhere"));
    std::map<std::string, int> _cards;
    int _count = 0;
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    std::unique_ptr<ConformanceRig> rig = std::make_unique<AlsaRig>();
#ifdef DXR_TEST_AGGREGATES
    rig = std::make_unique<AggregateRig>(std::move(rig));
#endif
    return rig;
}
