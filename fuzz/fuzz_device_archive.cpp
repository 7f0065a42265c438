// Archives of disconnected devices: the result is no device, or a device that can be listed, archived again
// and found by its reference.

#include "CXJSON.h"
#include "DXRDeviceControl.h"
#include "DXRDeviceManagerPrivate.h"
#include "Fuzz.h"
#include "MainQueue.h"
#include "simulated.h"

namespace {

/// A manager with only the devices of the last inputs. It is replaced every 64 inputs, because a manager
/// never releases a device.
DXRDeviceManager& manager()
{
    static CXRef<DXRDeviceManager> current;
    static unsigned uses = 0;
    if (uses == 0)
        HALSetHardwareDriver(SimulatedHardware::init(SimulatedClock::Stepped));
    if (uses++ % 64 == 0)
        current = DXRNewDeviceManager();
    return *current;
}

void check(const CXRef<DXRDevice>& device)
{
    mustHold(!device->isConnected() && device->deviceID() == 0, "it is not there");
    mustHold(device->channelCount() > 0, "it has channels");
    mustHold(device->reference()->isInput() == device->isInput(), "it has a direction");
    mustHold(device->displayName() == "⚠️ " + device->name(), "it shows as absent");
    mustHold(!device->setMuted(true), "it cannot be set");
    const std::vector<uint32_t> stereo = device->preferredStereoChannels();
    mustHold(stereo.size() == 2 && stereo[0] >= 1 && stereo[1] >= 1 && stereo[0] <= device->channelCount() &&
                 stereo[1] <= device->channelCount(),
             "its stereo channels are its own");
    for (const double rate : device->availableSampleRates())
        mustHold(rate > 0.0, "its rates are rates");
    static_cast<void>(device->description());

    const CXPlist archive = device->archive();
    if (CXJSONWithPlist(archive).size() > CXJSONMaximumBytes)
        return;
    const CXRef<DXRDevice> again = DXRDeviceControl::initWithArchive(archive);
    mustHold(again && again->archive() == archive, "its archive is the same device");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const auto* data = reinterpret_cast<const std::byte*>(bytes);
    DXRDeviceManager& owner = manager();
    if (const CXRef<DXRDevice> device = owner.deviceFromArchive({data, size})) {
        check(device);
        const CXRef<DXRDeviceReference> reference =
            DXRDeviceReference::initWithString(device->reference()->string());
        if (device->reference()->isEqual(reference.get())) // false for a reference without a unique ID
            mustHold(owner.deviceFromArchive({data, size}) == device, "it is the same object the next time");
        const auto archive = DXRDeviceManager::archiveForDevice(device);
        mustHold(archive && archive->size() >= 12, "it can be archived");
    }
    while (dxr::MainQueue::shared().drain() > 0) {
    }
    return 0;
}
