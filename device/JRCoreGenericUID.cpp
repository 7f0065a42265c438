#include "JRCoreGenericUID.h"

#include "AudioHardware.h"
#include "USBRegistry.h"
#include "Utf8.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <vector>

namespace {

using dxr::USBAudioEngine;
using dxr::USBDevice;
using dxr::USBRegistry;
using dxr::USBRegistryContents;

constexpr std::string_view usbEngine = "AppleUSBAudioEngine";
constexpr std::string_view displayPortEngine = "AppleGFXHDAEngineOutputDP:";

std::vector<std::string_view> split(std::string_view text)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t colon = text.find(':');
        parts.push_back(text.substr(0, colon));
        if (colon == std::string_view::npos)
            return parts;
        text.remove_prefix(colon + 1);
    }
}

std::string join(const std::vector<std::string_view>& parts)
{
    std::string joined(parts.front());
    for (size_t i = 1; i < parts.size(); ++i)
        joined.append(":").append(parts[i]);
    return joined;
}

bool isHexadecimalDigit(char character)
{
    return std::isxdigit(static_cast<unsigned char>(character)) != 0;
}

std::optional<std::string> genericUSBEngineUID(const std::string& deviceUID)
{
    std::vector<std::string_view> parts = split(deviceUID);
    if (parts.size() < 5)
        return std::nullopt;
    std::optional<std::string> serialNumber;
    const bool isPresent = USBRegistry::ask([&](const USBRegistryContents& contents) {
        const USBAudioEngine* const engine = contents.engineWithGlobalUniqueID(deviceUID);
        if (engine)
            serialNumber = engine->serialNumber;
        return engine != nullptr;
    });
    if (!isPresent)
        return std::nullopt;
    const size_t last = parts.size() - 1;
    if (serialNumber != parts[last - 1])
        parts[last - 1] = {};
    parts[last] = {};
    return join(parts);
}

/// `text` with its hexadecimal digits in upper case, as "%X" prints them.
std::string withUpperDigits(std::string text)
{
    for (char& each : text)
        if (each >= 'a' && each <= 'f')
            each = static_cast<char>(each - 'a' + 'A');
    return text;
}

/// The length in UTF-16 units, in which the positions of the rule are counted.
size_t utf16Length(std::string_view text)
{
    size_t units = 0;
    while (!text.empty()) {
        const size_t length = std::max<size_t>(dxr::utf8CharacterLength(text), 1);
        units += length == 4 ? 2 : 1;
        text.remove_prefix(length);
    }
    return units;
}

/// The position in the ID of the location of a present device, the first in the registry's order.
std::optional<size_t> endOfModelPart(const std::string& deviceUID, const USBRegistryContents& contents)
{
    const std::string text = withUpperDigits(deviceUID);
    for (const USBDevice& device : contents.devices()) {
        if (device.locationID == 0)
            continue;
        char paddedWithZeros[16];
        char paddedWithSpaces[16];
        std::snprintf(paddedWithZeros, sizeof paddedWithZeros, "%08X", device.locationID);
        std::snprintf(paddedWithSpaces, sizeof paddedWithSpaces, "%8X", device.locationID);
        size_t at = text.find(paddedWithZeros);
        if (at == std::string::npos)
            at = text.find(paddedWithSpaces);
        if (at != std::string::npos && utf16Length(std::string_view(text).substr(0, at)) >= 2 &&
            !isHexadecimalDigit(text[at - 1]))
            return at;
    }
    return std::nullopt;
}

std::optional<std::string> genericUSBUID(const std::string& deviceUID)
{
    std::optional<size_t> end;
    USBRegistry::ask([&](const USBRegistryContents& contents) {
        end = endOfModelPart(deviceUID, contents);
        return end.has_value();
    });
    return end ? std::optional(deviceUID.substr(0, *end)) : std::nullopt;
}

std::optional<std::string> genericDisplayPortUID(const std::string& deviceUID)
{
    if (!deviceUID.starts_with(displayPortEngine) || !deviceUID.ends_with('}'))
        return std::nullopt;
    std::vector<std::string_view> parts = split(deviceUID);
    if (parts.size() < 4)
        return std::nullopt;
    for (size_t i = 1; i + 1 < parts.size(); ++i)
        parts[i] = {};
    return join(parts);
}

} // namespace

bool JRCoreTransportCouldBeGeneric(uint32_t transport)
{
    return transport == kAudioDeviceTransportTypeUSB || transport == kAudioDeviceTransportTypeDisplayPort;
}

std::optional<std::string> JRCoreCreateGenericUID(uint32_t transport,
                                                  const std::optional<std::string>& deviceUID)
{
    if (!deviceUID)
        return std::nullopt;
    if (transport == kAudioDeviceTransportTypeDisplayPort)
        return genericDisplayPortUID(*deviceUID);
    if (transport != kAudioDeviceTransportTypeUSB)
        return std::nullopt;
    const bool isEngine = deviceUID->starts_with(std::string(usbEngine) + ":");
    return isEngine ? genericUSBEngineUID(*deviceUID) : genericUSBUID(*deviceUID);
}
