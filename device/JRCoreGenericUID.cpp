#include "JRCoreGenericUID.h"

#include "AudioHardware.h"
#include "USBRegistry.h"

#include <array>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

using platform::USBAudioEngine;
using platform::USBDevice;
using platform::USBRegistry;
using platform::USBRegistryContents;

constexpr std::string_view usbEngine = "AppleUSBAudioEngine";
constexpr std::string_view displayPortEngine = "AppleGFXHDAEngineOutputDP:";
constexpr size_t locationDigits = 8;

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

/// -1 for what is no hexadecimal digit.
int hexadecimalValue(char character)
{
    if (character >= '0' && character <= '9')
        return character - '0';
    const char lower = static_cast<char>(character | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
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

/// The eight characters as a location: digits only, or fewer after spaces, as a number is printed padded with zeros
/// or with spaces. Nothing when they are neither.
std::optional<uint32_t> locationIn(std::string_view eight, bool& isPaddedWithSpaces)
{
    uint32_t location = 0;
    bool hasDigit = false;
    isPaddedWithSpaces = eight[0] == ' ';
    for (const char each : eight) {
        const int value = hexadecimalValue(each);
        if (value < 0 && (each != ' ' || hasDigit))
            return std::nullopt;
        // A number padded with spaces has no zero in front.
        if (value == 0 && isPaddedWithSpaces && !hasDigit)
            return std::nullopt;
        hasDigit = hasDigit || value >= 0;
        location = location << 4 | static_cast<uint32_t>(value < 0 ? 0 : value);
    }
    return location;
}

/// Where in the ID the present device that was listed first has its location; nothing when none has.
std::optional<size_t> endOfModelPart(const std::string& deviceUID, const USBRegistryContents& contents)
{
    std::optional<size_t> end;
    const USBDevice* first = nullptr;
    std::unordered_set<uint32_t>
        seen; // of each location only its first place in the ID counts, and zeros before spaces
    for (const bool wantsSpaces : {false, true}) {
        for (size_t at = 0; at + locationDigits <= deviceUID.size(); ++at) {
            bool hasSpaces = false;
            const auto location =
                locationIn(std::string_view(deviceUID).substr(at, locationDigits), hasSpaces);
            const USBDevice* const device =
                location && hasSpaces == wantsSpaces ? contents.deviceAtLocation(*location) : nullptr;
            if (!device || !seen.insert(*location).second || at < 2 ||
                hexadecimalValue(deviceUID[at - 1]) >= 0)
                continue;
            if (!first || device < first) { // listed before it
                first = device;
                end = at;
            }
        }
    }
    return end;
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
