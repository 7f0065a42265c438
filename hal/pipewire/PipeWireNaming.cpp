#include "PipeWireNaming.h"

#include "AudioHardware.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <pipewire/keys.h>
#include <utility>

const std::string& PipeWireNodeProperties::operator[](std::string_view key) const
{
    const std::string& own = _node[key];
    return own.empty() && _card ? (*_card)[key] : own;
}

namespace {

// Names come from anywhere and may be of any length: no regular expressions, which would recurse over them.

bool isDigits(std::string_view text)
{
    return !text.empty() && std::ranges::all_of(text, [](char each) { return each >= '0' && each <= '9'; });
}

/// What stands behind the last '.'; empty without one.
std::string_view lastPart(std::string_view name)
{
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

/// `name` without a last ".2" to ".99".
std::string withoutArrivalNumber(const std::string& name)
{
    const std::string_view number = lastPart(name);
    const bool isArrival = isDigits(number) && number.size() <= 2 && number[0] != '0' && number != "1";
    return isArrival && number.size() + 1 < name.size() ? name.substr(0, name.size() - number.size() - 1)
                                                        : name;
}

/// Whether the name ends as a PCI device's address does: in slot and function, as "00_1f.3".
bool endsInPCIFunction(std::string_view name)
{
    const std::string_view function = lastPart(name);
    const bool hasAddress = name.size() > 5 && name[name.size() - 5] == '_';
    return name.find("pci-") != std::string_view::npos && function.size() == 1 && isDigits(function) &&
           hasAddress;
}

/// Whether the name ends in a sub-device, as "playback.0.0": nodes of a card used without a mixer.
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

/// As the session manager writes names: letters, digits and "_-." stay.
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

/// The card's name without its number of arrival. The name is made of where the card is, which may itself end in
/// what looks like such a number: the function of a PCI device.
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

/// Whether a name was made by the session manager, which then also numbered it, and not by whoever made the node.
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
        // The node's name has the card's in its middle, with the card's number.
        const auto middle = [](const std::string& whole) { return whole.substr(whole.find('.') + 1); };
        const std::string numbered = middle((*card)[PW_KEY_DEVICE_NAME]);
        const std::string plain = middle(cardName(*card));
        const size_t at = numbered.empty() ? std::string::npos : name.find(numbered + ".");
        if (at != std::string::npos)
            name.replace(at, numbered.size(), plain);
    }
    return endsInSubDevice(name) ? name : withoutArrivalNumber(name);
}

/// Where a USB device is: its bus, its ports from the root ("1.4.2"), and, of a path of the kernel's, its folder.
struct USBPlace {
    std::string_view bus;
    std::string_view ports;
    std::string_view folder;
};

bool isPorts(std::string_view text)
{
    return !text.empty() && text.front() != '.' && text.back() != '.' &&
           text.find_first_not_of("0123456789.") == std::string_view::npos;
}

/// Of "/devices/…/usb3/3-1/3-1.4/3-1.4:1.0/sound/card5": the innermost folder of the form BUS-PORTS.
std::optional<USBPlace> placeInKernelPath(std::string_view path)
{
    for (size_t end = path.size(); end != std::string_view::npos && end > 0; end = path.rfind('/', end - 1)) {
        const std::string_view folder = path.substr(0, end);
        const std::string_view name = folder.substr(folder.rfind('/') + 1); // all of it, where there is none
        const size_t dash = name.find('-');
        if (dash != std::string_view::npos && isDigits(name.substr(0, dash)) &&
            isPorts(name.substr(dash + 1)))
            return USBPlace{name.substr(0, dash), name.substr(dash + 1), folder};
    }
    return std::nullopt;
}

/// Of udev's "pci-0000:00:14.0-usb-0:1.4.2:1.0".
std::optional<USBPlace> placeInBusPath(std::string_view path)
{
    const size_t mark = path.find("usb");
    const size_t dash = path.find('-', mark);
    const size_t colon = path.find(':', dash);
    if (mark == std::string_view::npos || dash == std::string_view::npos || colon == std::string_view::npos)
        return std::nullopt;
    const std::string_view bus = path.substr(dash + 1, colon - dash - 1);
    const std::string_view ports = path.substr(colon + 1, path.find(':', colon + 1) - colon - 1);
    if (!isDigits(bus) || !isPorts(ports))
        return std::nullopt;
    return USBPlace{bus, ports, {}};
}

uint32_t number(std::string_view digits)
{
    uint32_t value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

bool hasUSBSerialNumber(const PipeWireNodeProperties& properties)
{
    if (const std::optional<USBPlace> place = placeInKernelPath(properties[PW_KEY_DEVICE_SYSFS_PATH])) {
        const std::string folder = "/sys" + std::string(place->folder);
        std::string serial;
        if (std::ifstream file(folder + "/serial"); file >> serial && !serial.empty())
            return true;
        if (std::ifstream(folder + "/idVendor"))
            return false; // the kernel has the device, and no number of it
    }
    // Without a number of its own, udev calls a device by maker and product alone.
    const std::string serial = sanitized(properties[PW_KEY_DEVICE_SERIAL]);
    const std::string model =
        sanitized(properties[PW_KEY_DEVICE_VENDOR_NAME] + "_" + properties[PW_KEY_DEVICE_PRODUCT_NAME]);
    return !serial.empty() && serial != model;
}

std::optional<uint32_t> locationWithoutSerialNumber(const PipeWireNodeProperties& properties)
{
    if (properties[PW_KEY_DEVICE_BUS] != "usb" || hasUSBSerialNumber(properties))
        return std::nullopt;
    const std::optional<uint32_t> location = pipeWireUSBLocation(properties[PW_KEY_DEVICE_SYSFS_PATH]);
    return location ? location : pipeWireUSBLocation(properties[PW_KEY_DEVICE_BUS_PATH]);
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
    std::optional<USBPlace> place = placeInKernelPath(path);
    if (!place)
        place = placeInBusPath(path);
    if (!place)
        return std::nullopt;
    uint32_t location = (number(place->bus) & 0xFFU) << 24;
    uint32_t shift = 24;
    for (std::string_view ports = place->ports; !ports.empty() && shift > 0;) {
        const size_t dot = std::min(ports.find('.'), ports.size());
        shift -= 4;
        location |= (number(ports.substr(0, dot)) & 0xFU) << shift;
        ports.remove_prefix(std::min(dot + 1, ports.size()));
    }
    return location;
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
    if (bus == "pci" || bus == "platform" || bus.empty()) { // a graphics unit's sound, by what it leads to
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
    if (api == "raop" || name.starts_with("raop_"))
        return kAudioDeviceTransportTypeAirPlay;
    if (properties.node().isTrue(PW_KEY_NODE_NETWORK))
        return kAudioDeviceTransportTypeNetwork;
    if (api == "alsa" && !properties.node().isTrue(PW_KEY_NODE_VIRTUAL))
        return kAudioDeviceTransportTypeBuiltIn;
    return kAudioDeviceTransportTypeVirtual;
}

bool pipeWireIsHidden(const PipeWireProperties& node)
{
    return node[PW_KEY_MEDIA_CLASS].ends_with("/Internal") || node.isTrue("node.internal") ||
           node.isTrue("node.hidden") || node.isTrue("device.internal");
}
