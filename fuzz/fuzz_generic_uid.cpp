// Generic unique IDs: the result is none, or the ID up to the location of a connected device. The first line
// lists locations in hexadecimal, eight digits each; the rest is the unique ID.

#include "AudioHardware.h"
#include "Fuzz.h"
#include "JRCoreGenericUID.h"
#include "USBRegistry.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

namespace {

using dxr::USBDevice, dxr::USBRegistry, dxr::USBRegistryContents;

/// Whether, in `uid`, the location of one of the devices follows after the generic ID.
bool endsAtALocation(const std::string& generic, const std::string& uid,
                     const std::vector<USBDevice>& devices)
{
    const std::string eight = uid.substr(generic.size(), 8);
    return std::ranges::any_of(devices, [&](const USBDevice& device) {
        return device.locationID != 0 && std::strtoul(eight.c_str(), nullptr, 16) == device.locationID;
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const FuzzedText text(bytes, size);
    std::vector<USBDevice> devices;
    for (size_t at = 0; at + 8 <= std::min<size_t>(text.first.size(), 800); at += 8)
        devices.push_back({static_cast<uint32_t>(
            std::strtoul(std::string(text.first.substr(at, 8)).c_str(), nullptr, 16))});
    USBRegistry::setReader([&] { return USBRegistryContents::initWithDevices(devices, {}); });
    const std::string uid(text.second.substr(0, 4096));
    const auto generic = JRCoreCreateGenericUID(kAudioDeviceTransportTypeUSB, uid);
    mustHold(!generic || (uid.starts_with(*generic) && generic->size() >= 2 &&
                          std::isxdigit(static_cast<unsigned char>(generic->back())) == 0 &&
                          endsAtALocation(*generic, uid, devices)),
             "it is the ID up to a location");
    const auto display = JRCoreCreateGenericUID(kAudioDeviceTransportTypeDisplayPort, uid);
    mustHold(!display || std::ranges::count(*display, ':') == std::ranges::count(uid, ':'), "no part goes");
    USBRegistry::setReader({});
    return 0;
}
