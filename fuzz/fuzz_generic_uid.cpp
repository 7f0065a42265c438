// Generic unique IDs, beside the same rule written without any haste. The first line lists locations in hexadecimal,
// eight digits each; the rest is the unique ID.

#include "AudioHardware.h"
#include "Fuzz.h"
#include "JRCoreGenericUID.h"
#include "USBRegistry.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

namespace {

using platform::USBDevice;
using platform::USBRegistry;
using platform::USBRegistryContents;

std::string upper(std::string text)
{
    std::ranges::transform(text, text.begin(), [](char each) {
        return each >= 'a' && each <= 'z' ? static_cast<char>(each - 'a' + 'A') : each;
    });
    return text;
}

std::optional<std::string> plainly(const std::string& uid, const std::vector<USBDevice>& devices)
{
    for (const USBDevice& device : devices) {
        if (device.locationID == 0)
            continue;
        char zeros[16];
        char spaces[16];
        std::snprintf(zeros, sizeof zeros, "%08X", device.locationID);
        std::snprintf(spaces, sizeof spaces, "%8X", device.locationID);
        size_t at = upper(uid).find(zeros);
        if (at == std::string::npos)
            at = upper(uid).find(spaces);
        if (at == std::string::npos || at < 2 || std::isxdigit(static_cast<unsigned char>(uid[at - 1])) != 0)
            continue;
        return uid.substr(0, at);
    }
    return std::nullopt;
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
    if (!uid.starts_with("AppleUSBAudioEngine:"))
        mustHold(generic == plainly(uid, devices), "the quick way finds what the plain one does");
    const auto display = JRCoreCreateGenericUID(kAudioDeviceTransportTypeDisplayPort, uid);
    mustHold(!display || std::ranges::count(*display, ':') == std::ranges::count(uid, ':'), "no part goes");
    USBRegistry::setReader({});
    return 0;
}
