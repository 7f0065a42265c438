// Runs the conformance suite over the kernel's own cards: scripts/kernel/conformance.sh.
#include "ConformanceRig.h"
#include "HALIO.h"

#include "AlsaDriver.h"

#include <cstdlib>
#include <fstream>
#include <utility>
#include <vector>

namespace {

/// A card of this machine. Writing `plugText` or `unplugText` to its file in /sys plugs or unplugs it.
struct KernelCard {
    uint32_t inputs = 0, outputs = 0;
    std::string plugFile, plugText, unplugFile, unplugText;
    bool isPlugged = false;
    std::string uid; // of its device; empty until the device has appeared
};

/// Reads the cards from the file $DXR_CARDS, one per line. All of them must be unplugged at first.
std::vector<KernelCard> readCards()
{
    const char* const path = std::getenv("DXR_CARDS");
    std::ifstream file(path ? path : "");
    std::vector<KernelCard> cards;
    for (KernelCard card; file >> card.inputs >> card.outputs >> card.plugFile >> card.plugText >>
                          card.unplugFile >> card.unplugText;)
        cards.push_back(card);
    return cards;
}

void write(const std::string& file, const std::string& text)
{
    std::ofstream(file) << text << std::flush;
}

class KernelRig final : public ConformanceRig {
public:
    ~KernelRig() override
    {
        for (KernelCard& card : _cards)
            _unplug(card);
    }
    HALModel& model() override { return *_model; }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        for (KernelCard& card : _cards) {
            if (card.isPlugged || card.inputs != inputs || card.outputs != outputs)
                continue;
            const std::vector<AudioObjectID> before = readDevices(*_model);
            const auto isNew = [&](AudioObjectID device) { return !std::ranges::count(before, device); };
            write(card.plugFile, card.plugText);
            card.isPlugged = true;
            std::vector<AudioObjectID> devices;
            eventually([&] { return std::ranges::any_of(devices = readDevices(*_model), isNew); });
            const auto device = std::ranges::find_if(devices, isNew);
            if (device != devices.end())
                card.uid = readText(*_model, *device, at(kAudioDevicePropertyDeviceUID)).value_or("");
            return card.uid;
        }
        ADD_FAILURE() << "no card for " << name << ": " << inputs << " inputs, " << outputs << " outputs";
        return "";
    }
    void unplug(const std::string& uid) override
    {
        for (KernelCard& card : _cards)
            if (card.uid == uid)
                _unplug(card);
    }
    void rename(const std::string&, const std::string&) override {}
    void letTimePass() override { sleepForMilliseconds(30); }
    bool prepareNames() override { return false; }
    float volumeTolerance() const override { return 0.01F; }

private:
    static void _unplug(KernelCard& card)
    {
        if (std::exchange(card.isPlugged, false))
            write(card.unplugFile, card.unplugText);
    }

    const CXRef<HALModel> _model = HALModel::initWithDriver(AlsaDriver::init());
    std::vector<KernelCard> _cards = readCards();
};

} // namespace

std::unique_ptr<ConformanceRig> makeConformanceRig()
{
    return std::make_unique<KernelRig>();
}
