// Runs the conformance suite over the kernel's own cards: scripts/kernel/conformance.sh.
#include "AlsaDriver.h"
#include "Conformance.h"

#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

/// A card of this machine. Writing `plugText` or `unplugText` to its file in /sys plugs or unplugs it.
struct KernelCard {
    uint32_t inputs = 0, outputs = 0;
    std::string plugFile, plugText, unplugFile, unplugText;
    std::string uid; // of its device; empty while it is unplugged
};

class KernelRig final : public ConformanceRig {
public:
    /// Reads the cards from the file $DXR_CARDS, one per line. All of them must be unplugged at first.
    KernelRig()
    {
        const char* const path = std::getenv("DXR_CARDS");
        std::ifstream file(path ? path : "");
        for (KernelCard card; file >> card.inputs >> card.outputs >> card.plugFile >> card.plugText >>
                              card.unplugFile >> card.unplugText;)
            _cards.push_back(card);
    }
    ~KernelRig() override { std::ranges::for_each(_cards, _unplug); }
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const auto card = std::ranges::find_if(_cards, [&](const KernelCard& each) {
            return each.uid.empty() && each.inputs == inputs && each.outputs == outputs;
        });
        if (card == _cards.end())
            throw std::runtime_error("no card for " + name);
        const std::vector<AudioObjectID> before = readDevices(*_model);
        std::ofstream(card->plugFile) << card->plugText;
        eventually([&] {
            for (const AudioObjectID device : readDevices(*_model))
                if (!std::ranges::count(before, device))
                    card->uid = readText(*_model, device, at(kAudioDevicePropertyDeviceUID)).value_or("");
            return !card->uid.empty();
        });
        return card->uid;
    }
    void unplug(const std::string& uid) override
    {
        for (KernelCard& card : _cards)
            if (card.uid == uid)
                _unplug(card);
    }
    bool setsNames() const override { return false; }
    float volumeTolerance() const override { return 0.01F; }

private:
    static void _unplug(KernelCard& card)
    {
        if (!std::exchange(card.uid, {}).empty())
            std::ofstream(card.unplugFile) << card.unplugText;
    }

    const CXRef<HALModel> _model = HALModel::initWithDriver(AlsaDriver::init());
    std::vector<KernelCard> _cards;
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    return std::make_unique<KernelRig>();
}
