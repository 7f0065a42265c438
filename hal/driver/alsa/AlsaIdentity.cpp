#include "AlsaIdentity.h"

#include "AudioHardwareTypes.h"
#include "USBRegistry.h"
#include "Utf8.h"

#include <cstdio>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr size_t maxAttributeBytes = 256;

/// The first line of a file of the kernel's; empty when there is none.
std::string attribute(const fs::path& file)
{
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return dxr::utf8Replaced(line.substr(0, maxAttributeBytes));
}

std::optional<std::string> unlessEmpty(std::string text)
{
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

bool isScreen(const AlsaPcmInfo& pcm)
{
    return contains(pcm.id, "HDMI") || contains(pcm.name, "HDMI") || contains(pcm.name, "DisplayPort");
}

/// Of a unit on USB: by maker, product and serial number, or by where it is plugged in when it has none.
void identifyUSB(AlsaIdentity& identity, const fs::path& unit)
{
    identity.place = unit.filename().string();
    if (const auto location = dxr::usbLocationID(identity.place)) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08X", *location);
        identity.place = digits;
    }
    const std::string model = attribute(unit / "idVendor") + ":" + attribute(unit / "idProduct");
    const std::string serial = attribute(unit / "serial");
    identity.key = "usb:" + model + ":" + (serial.empty() ? identity.place : serial);
    identity.manufacturer = unlessEmpty(attribute(unit / "manufacturer"));
    identity.modelUID = model;
}

} // namespace

AlsaIdentity alsaIdentity(int cardNumber, const AlsaCardInfo& info, const fs::path& system)
{
    AlsaIdentity identity;
    identity.name = dxr::utf8Replaced(info.name.empty() ? info.id : info.name);
    identity.transportType = contains(info.driver, "USB") || info.components.starts_with("USB")
                                 ? kAudioDeviceTransportTypeUSB
                             : contains(info.driver, "Dummy") || contains(info.driver, "Loopback")
                                 ? kAudioDeviceTransportTypeVirtual
                                 : kAudioDeviceTransportTypeBuiltIn;
    std::error_code missing;
    const fs::path device =
        fs::canonical(system / "class/sound" / ("card" + std::to_string(cardNumber)) / "device", missing);
    if (!missing && fs::exists(device.parent_path() / "idVendor", missing))
        identifyUSB(identity, device.parent_path());
    else if (!missing)
        identity.key = identity.place = dxr::utf8Replaced(device.filename().string());
    else // the long name has the place, and the identifier is numbered by order of arrival
        identity.key = identity.place = dxr::utf8Replaced(info.longName.empty() ? info.id : info.longName);
    if (!identity.modelUID && info.components.starts_with("USB"))
        identity.modelUID = dxr::utf8Replaced(info.components.substr(3, 9));
    return identity;
}

std::string alsaDeviceName(const AlsaIdentity& card, const AlsaPcmInfo& pcm)
{
    const std::string& own = pcm.name.empty() ? pcm.id : pcm.name;
    return pcm.isOnly || own.empty() ? card.name : card.name + " " + dxr::utf8Replaced(own);
}

uint32_t alsaTransportType(const AlsaIdentity& card, const AlsaPcmInfo& pcm)
{
    return isScreen(pcm) ? kAudioDeviceTransportTypeHDMI : card.transportType;
}
