#include "AlsaIdentity.h"

#include "AudioHardwareTypes.h"
#include "USBRegistry.h"
#include "Utf8.h"

#include <cstdio>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr size_t maxAttributeBytes = 256;

/// The first line of a kernel attribute file; empty if it cannot be read.
std::string attribute(const fs::path& file)
{
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return dxr::utf8Replaced(line.substr(0, maxAttributeBytes));
}

uint32_t transportOf(const AlsaCardInfo& info)
{
    const auto isDriver = [&](const char* part) { return info.driver.find(part) != std::string::npos; };
    if (isDriver("USB") || info.components.starts_with("USB"))
        return kAudioDeviceTransportTypeUSB;
    return isDriver("Dummy") || isDriver("Loopback") ? kAudioDeviceTransportTypeVirtual
                                                     : kAudioDeviceTransportTypeBuiltIn;
}

/// Identifies a USB unit by vendor, product and serial number, or by its port if it has no serial number.
void identifyUSB(AlsaIdentity& identity, const fs::path& unit)
{
    identity.place = unit.filename().string();
    if (const auto location = dxr::usbLocationID(identity.place)) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08X", *location);
        identity.place = digits;
    }
    const std::string manufacturer = attribute(unit / "manufacturer");
    const std::string serial = attribute(unit / "serial");
    identity.modelUID = attribute(unit / "idVendor") + ":" + attribute(unit / "idProduct");
    identity.key = "usb:" + *identity.modelUID + ":" + (serial.empty() ? identity.place : serial);
    if (!manufacturer.empty())
        identity.manufacturer = manufacturer;
}

} // namespace

AlsaIdentity alsaIdentity(int cardNumber, const AlsaCardInfo& info, const fs::path& system)
{
    AlsaIdentity identity;
    identity.transportType = transportOf(info);
    std::error_code missing;
    const fs::path device =
        fs::canonical(system / "class/sound" / ("card" + std::to_string(cardNumber)) / "device", missing);
    // The long name contains the place; the identifier is numbered in order of appearance.
    const std::string place = !missing                ? device.filename().string()
                              : info.longName.empty() ? info.id
                                                      : info.longName;
    identity.key = identity.place = dxr::utf8Replaced(place);
    if (info.components.starts_with("USB"))
        identity.modelUID = dxr::utf8Replaced(info.components.substr(3, 9));
    if (!missing && fs::exists(device.parent_path() / "idVendor", missing))
        identifyUSB(identity, device.parent_path());
    return identity;
}
