#include "PipeWireNaming.h"

#include "AudioHardwareTypes.h"
#include "USBRegistry.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <pipewire/keys.h>
#include <utility>

const std::string& PipeWireNodeProperties::operator[](std::string_view key) const
{
    const std::string& own = _node[key];
    return own.empty() && _card ? (*_card)[key] : own;
}

namespace {

// No regular expressions: names are untrusted and of any length, and matching would recurse over them.

bool isDigits(std::string_view text)
{
    return !text.empty() && std::ranges::all_of(text, [](char each) { return each >= '0' && each <= '9'; });
}

/// The text after the last '.'; empty without one.
std::string_view lastPart(std::string_view name)
{
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

/// `name` without a trailing ".2" to ".99".
std::string withoutArrivalNumber(const std::string& name)
{
    const std::string_view number = lastPart(name);
    const bool isArrival = isDigits(number) && number.size() <= 2 && number[0] != '0' && number != "1";
    return isArrival && number.size() + 1 < name.size() ? name.substr(0, name.size() - number.size() - 1)
                                                        : name;
}

/// Whether the name ends with the slot and function of a PCI address, such as "00_1f.3".
bool endsInPCIFunction(std::string_view name)
{
    const std::string_view function = lastPart(name);
    const bool hasAddress = name.size() > 5 && name[name.size() - 5] == '_';
    return name.find("pci-") != std::string_view::npos && function.size() == 1 && isDigits(function) &&
           hasAddress;
}

/// Whether the name ends with a sub-device, such as "playback.0.0", as nodes of a card without a mixer do.
bool endsInSubDevice(std::string_view name)
{
    for (int part = 0; part < 2; ++part) {
        const std::string_view number = lastPart(name);
        if (!isDigits(number))
            return false;
        name.remove_suffix(number.size() + 1);
    }
    return lastPart(name) == "playback" || lastPart(name) == "capture";
}

/// Replaces all characters but letters, digits and "_-." by '_', as the session manager does.
std::string sanitized(std::string name)
{
    std::ranges::replace_if(
        name,
        [](unsigned char each) {
            return std::isalnum(each) == 0 && each != '_' && each != '-' && each != '.';
        },
        '_');
    return name;
}

/// The card's name without its number of arrival. The name contains the card's place on its bus, which may
/// itself end with a similar number: the function of a PCI device.
std::string cardName(const PipeWireProperties& card)
{
    const std::string& name = card[PW_KEY_DEVICE_NAME];
    for (const char* key : {"device.bus-id", PW_KEY_DEVICE_BUS_PATH}) {
        const std::string place = sanitized(card[key]);
        if (place.empty())
            continue;
        const size_t end = name.find(place);
        if (end != std::string::npos)
            return name.size() == end + place.size() ? name : withoutArrivalNumber(name);
    }
    return endsInPCIFunction(name) ? name : withoutArrivalNumber(name);
}

/// Whether a name was made, and therefore numbered, by the session manager and not by the node's creator.
bool isNamedBySessionManager(const PipeWireNodeProperties& properties, const std::string& name)
{
    return properties[PW_KEY_DEVICE_API] == "alsa" || name.starts_with("alsa_");
}

std::string nodeName(const PipeWireNodeProperties& properties)
{
    std::string name = properties.node()[PW_KEY_NODE_NAME];
    if (!isNamedBySessionManager(properties, name))
        return name;
    if (const PipeWireProperties* card = properties.card()) {
        // The node's name contains the card's name, including the card's number.
        const auto middle = [](const std::string& whole) { return whole.substr(whole.find('.') + 1); };
        const std::string numbered = middle((*card)[PW_KEY_DEVICE_NAME]);
        const std::string plain = middle(cardName(*card));
        const size_t at = numbered.empty() ? std::string::npos : name.find(numbered + ".");
        if (at != std::string::npos)
            name.replace(at, numbered.size(), plain);
    }
    return endsInSubDevice(name) ? name : withoutArrivalNumber(name);
}

/// Of "/devices/…/usb3/3-1/3-1.4/3-1.4:1.0/sound/card5": the location of the innermost USB device.
std::optional<uint32_t> locationInKernelPath(std::string_view path)
{
    for (size_t end = path.size(); end != std::string_view::npos && end > 0; end = path.rfind('/', end - 1)) {
        const std::string_view folder = path.substr(0, end);
        const size_t start = folder.rfind('/') + 1; // 0 if there is no '/'
        if (const auto location = dxr::usbLocationID(folder.substr(start)))
            return location;
    }
    return std::nullopt;
}

/// Of udev's "pci-0000:00:14.0-usb-0:1.4.2:1.0": the location by the ports alone, without the bus number.
std::optional<uint32_t> locationInBusPath(std::string_view path)
{
    const size_t mark = path.find("usb");
    const size_t dash = path.find('-', mark);
    const size_t colon = path.find(':', dash);
    if (mark == std::string_view::npos || dash == std::string_view::npos || colon == std::string_view::npos)
        return std::nullopt;
    std::string name(path.substr(dash + 1, path.find(':', colon + 1) - dash - 1));
    name[colon - dash - 1] = '-'; // as the kernel writes it
    return dxr::usbLocationID(name);
}

/// The location of a sound card of this computer, found by its bus path, or by its number and its ports.
std::optional<uint32_t> registeredLocation(const std::string& busPath, const std::string& cardNumber)
{
    constexpr uint32_t ports = 0x00FFFFFF;
    const std::optional<uint32_t> withoutBus = locationInBusPath(busPath);
    std::optional<uint32_t> location;
    dxr::USBRegistry::ask([&](const dxr::USBRegistryContents& contents) {
        for (const dxr::USBAudioEngine& engine : contents.engines()) {
            if (!busPath.empty() && engine.busPath == busPath) {
                location = engine.locationID;
                break;
            }
            if (engine.cardNumber && std::to_string(*engine.cardNumber) == cardNumber &&
                (!withoutBus || ((*withoutBus ^ engine.locationID) & ports) == 0))
                location = engine.locationID;
        }
        return location.has_value();
    });
    return location;
}

std::optional<uint32_t> usbLocation(const PipeWireNodeProperties& properties)
{
    if (const auto location = locationInKernelPath(properties[PW_KEY_DEVICE_SYSFS_PATH]))
        return location;
    const std::string& busPath = properties[PW_KEY_DEVICE_BUS_PATH];
    const auto location = registeredLocation(busPath, properties["api.alsa.card"]);
    return location ? location : locationInBusPath(busPath); // not registered: the bus is unknown
}

bool hasUSBSerialNumber(const PipeWireNodeProperties& properties, uint32_t location)
{
    bool hasSerialNumber = false;
    const bool isKnown = dxr::USBRegistry::ask([&](const dxr::USBRegistryContents& contents) {
        const dxr::USBDevice* const device = contents.deviceAtLocation(location);
        hasSerialNumber = device && device->serialNumber;
        return device != nullptr;
    });
    if (isKnown)
        return hasSerialNumber;
    // For a device without a serial number, udev sets this property from vendor and product alone.
    const std::string serial = sanitized(properties[PW_KEY_DEVICE_SERIAL]);
    const std::string model =
        sanitized(properties[PW_KEY_DEVICE_VENDOR_NAME] + "_" + properties[PW_KEY_DEVICE_PRODUCT_NAME]);
    return !serial.empty() && serial != model;
}

std::optional<uint32_t> locationWithoutSerialNumber(const PipeWireNodeProperties& properties)
{
    if (properties[PW_KEY_DEVICE_BUS] != "usb")
        return std::nullopt;
    const std::optional<uint32_t> location = usbLocation(properties);
    return location && !hasUSBSerialNumber(properties, *location) ? location : std::nullopt;
}

std::optional<std::string> textUnlessEmpty(const std::string& text)
{
    return text.empty() ? std::nullopt : std::optional(pipeWireText(text));
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

std::optional<uint32_t> pipeWireUSBLocation(const std::string& path)
{
    const std::optional<uint32_t> location = locationInKernelPath(path);
    return location ? location : locationInBusPath(path);
}

std::string pipeWireUID(const PipeWireNodeProperties& properties, bool isWholeCard)
{
    std::string name = isWholeCard && properties.card() ? cardName(*properties.card()) : nodeName(properties);
    for (const char* key : {PW_KEY_OBJECT_PATH, PW_KEY_NODE_NICK, PW_KEY_NODE_DESCRIPTION})
        if (name.empty())
            name = properties.node()[key];
    if (name.empty())
        name = "unnamed";
    if (const std::optional<uint32_t> location = locationWithoutSerialNumber(properties)) {
        char digits[16];
        std::snprintf(digits, sizeof digits, ":%08X", *location);
        name += digits;
    }
    return pipeWireText(name);
}

std::string pipeWireDeviceName(const PipeWireNodeProperties& properties, bool isWholeCard)
{
    if (isWholeCard && properties.card())
        for (const char* key : {PW_KEY_DEVICE_DESCRIPTION, PW_KEY_DEVICE_NICK, PW_KEY_DEVICE_NAME})
            if (const std::string* name = properties.card()->find(key))
                return pipeWireText(*name);
    for (const char* key : {PW_KEY_NODE_DESCRIPTION, PW_KEY_NODE_NICK, PW_KEY_NODE_NAME})
        if (const std::string* name = properties.node().find(key))
            return pipeWireText(*name);
    return {};
}

std::optional<std::string> pipeWireManufacturer(const PipeWireNodeProperties& properties)
{
    return textUnlessEmpty(properties[PW_KEY_DEVICE_VENDOR_NAME]);
}

std::optional<std::string> pipeWireModelUID(const PipeWireNodeProperties& properties)
{
    const std::string& vendor = properties[PW_KEY_DEVICE_VENDOR_ID];
    const std::string& product = properties[PW_KEY_DEVICE_PRODUCT_ID];
    if (vendor.empty() && product.empty())
        return std::nullopt;
    return pipeWireText(vendor + ":" + product);
}

uint32_t pipeWireTransportType(const PipeWireNodeProperties& properties)
{
    static constexpr std::array<std::pair<std::string_view, uint32_t>, 10> buses{{
        {"usb", kAudioDeviceTransportTypeUSB},
        {"bluetooth", kAudioDeviceTransportTypeBluetooth},
        {"pci", kAudioDeviceTransportTypePCI},
        {"firewire", kAudioDeviceTransportTypeFireWire},
        {"hdmi", kAudioDeviceTransportTypeHDMI},
        {"displayport", kAudioDeviceTransportTypeDisplayPort},
        {"isa", kAudioDeviceTransportTypeBuiltIn},
        {"platform", kAudioDeviceTransportTypeBuiltIn},
        {"soundwire", kAudioDeviceTransportTypeBuiltIn},
        {"builtin", kAudioDeviceTransportTypeBuiltIn},
    }};
    const std::string& bus = properties[PW_KEY_DEVICE_BUS];
    const std::string& api = properties[PW_KEY_DEVICE_API];
    const std::string& profile = properties["device.profile.name"];
    const std::string& name = properties.node()[PW_KEY_NODE_NAME];
    if (bus == "pci" || bus == "platform" || bus.empty()) { // audio of a graphics card, by its connector
        if (contains(profile, "displayport"))
            return kAudioDeviceTransportTypeDisplayPort;
        if (contains(profile, "hdmi") || (name.starts_with("alsa_output.") && contains(name, ".hdmi-")))
            return kAudioDeviceTransportTypeHDMI;
    }
    const auto known = std::ranges::find(buses, std::string_view(bus), &decltype(buses)::value_type::first);
    if (known != buses.end())
        return known->second;
    if (api.starts_with("bluez"))
        return kAudioDeviceTransportTypeBluetooth;
    if (api == "raop" || name.starts_with("raop_") || name.starts_with("raop-sink-"))
        return kAudioDeviceTransportTypeAirPlay;
    if (properties.node().isTrue(PW_KEY_NODE_NETWORK))
        return kAudioDeviceTransportTypeNetwork;
    if (api == "alsa" && !properties.node().isTrue(PW_KEY_NODE_VIRTUAL))
        return kAudioDeviceTransportTypeBuiltIn;
    return kAudioDeviceTransportTypeVirtual;
}

bool pipeWireIsNetwork(const PipeWireNodeProperties& properties)
{
    const uint32_t transport = pipeWireTransportType(properties);
    return transport == kAudioDeviceTransportTypeNetwork || transport == kAudioDeviceTransportTypeAirPlay;
}

double pipeWireNetworkSeconds(const PipeWireNodeProperties& properties)
{
    if (!pipeWireIsNetwork(properties))
        return 0.0;
    const PipeWireProperties& node = properties.node();
    if (const std::optional<uint32_t> milliseconds = node.number("sess.latency.msec"))
        return *milliseconds * 1e-3;
    const std::string& latency = node[PW_KEY_NODE_LATENCY]; // "1200/48000"
    uint32_t frames = 0;
    uint32_t rate = 0;
    if (std::sscanf(latency.c_str(), "%9u/%9u", &frames, &rate) != 2 || rate == 0)
        return 0.0;
    // An RTP receiver asks for cycles of half the length of its buffer.
    const bool isReceiver = node.find("rtp.session") && !node[PW_KEY_MEDIA_CLASS].starts_with("Audio/Sink");
    return (isReceiver ? 2.0 : 1.0) * frames / rate;
}

bool pipeWireIsHidden(const PipeWireProperties& node)
{
    return node[PW_KEY_MEDIA_CLASS].ends_with("/Internal") || node.isTrue("node.internal") ||
           node.isTrue("node.hidden") || node.isTrue("device.internal");
}
