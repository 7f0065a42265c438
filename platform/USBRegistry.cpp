#include "USBRegistry.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <libudev.h>
#include <memory>
#include <mutex>

namespace dxr {

namespace {

using Clock = std::chrono::steady_clock;

// A device that the audio server reports has been on the bus for longer than maximumAgeOfAMiss, because its
// card had to be found first. So a device that is missing from contents of that age is not connected. Finding
// a device that was unplugged is harmless: the caller holds that device's ID.
constexpr std::chrono::milliseconds maximumAge{1000};
constexpr std::chrono::milliseconds maximumAgeOfAMiss{20};

struct UdevDeleter {
    void operator()(udev* context) const noexcept { udev_unref(context); }
    void operator()(udev_enumerate* list) const noexcept { udev_enumerate_unref(list); }
    void operator()(udev_device* device) const noexcept { udev_device_unref(device); }
};
using Udev = std::unique_ptr<udev, UdevDeleter>;
using Enumeration = std::unique_ptr<udev_enumerate, UdevDeleter>;
using Device = std::unique_ptr<udev_device, UdevDeleter>;

std::string text(const char* value)
{
    return value ? value : "";
}

/// Calls `visit` with each device of the subsystem that matches the filters added by `narrow`.
template <class Narrow, class Visit>
void forEachDevice(udev* context, const char* subsystem, Narrow narrow, Visit visit)
{
    const Enumeration devices(udev_enumerate_new(context));
    if (!devices || udev_enumerate_add_match_subsystem(devices.get(), subsystem) < 0 ||
        narrow(devices.get()) < 0 || udev_enumerate_scan_devices(devices.get()) < 0)
        return;
    udev_list_entry* each = nullptr;
    udev_list_entry_foreach(each, udev_enumerate_get_list_entry(devices.get()))
    {
        // Null if the device was unplugged meanwhile.
        if (const Device device{udev_device_new_from_syspath(context, udev_list_entry_get_name(each))})
            visit(device.get());
    }
}

/// Returns the attribute without leading and trailing blanks, which some devices add, or nothing if it is
/// missing or blank.
std::optional<std::string> attribute(udev_device* device, const char* name)
{
    std::string value = text(udev_device_get_sysattr_value(device, name));
    value.erase(value.find_last_not_of(" \t\n") + 1);
    value.erase(0, value.find_first_not_of(" \t\n"));
    return value.empty() ? std::nullopt : std::optional(value);
}

std::optional<USBAudioEngine> engineOfCard(udev_device* card)
{
    udev_device* const unit = udev_device_get_parent_with_subsystem_devtype(card, "usb", "usb_device");
    const std::optional<uint32_t> location =
        unit ? usbLocationID(text(udev_device_get_sysname(unit))) : std::nullopt;
    if (!location)
        return std::nullopt;
    USBAudioEngine engine;
    engine.locationID = *location;
    engine.serialNumber = attribute(unit, "serial");
    engine.busPath = text(udev_device_get_property_value(card, "ID_PATH"));
    if (const char* number = udev_device_get_sysnum(card))
        engine.cardNumber = static_cast<uint32_t>(std::strtoul(number, nullptr, 10));

    udev_device* const interface =
        udev_device_get_parent_with_subsystem_devtype(card, "usb", "usb_interface");
    const std::string interfaceNumber =
        interface ? attribute(interface, "bInterfaceNumber").value_or("0") : "0";
    char locationText[16];
    std::snprintf(locationText, sizeof locationText, "%x", *location);
    const auto named = [unit](const char* name, const char* number) {
        return attribute(unit, name).value_or(attribute(unit, number).value_or(""));
    };
    engine.globalUniqueID = "AppleUSBAudioEngine:" + named("manufacturer", "idVendor") + ":" +
                            named("product", "idProduct") + ":" + engine.serialNumber.value_or(locationText) +
                            ":" + std::to_string(std::strtoul(interfaceNumber.c_str(), nullptr, 16));
    return engine;
}

CXRef<USBRegistryContents> readFromSystem()
{
    std::vector<USBAudioEngine> engines;
    std::vector<USBDevice> devices;
    const Udev context(udev_new());
    if (!context)
        return USBRegistryContents::initWithDevices({}, {});
    forEachDevice(
        context.get(), "usb",
        [](udev_enumerate* list) { return udev_enumerate_add_match_property(list, "DEVTYPE", "usb_device"); },
        [&](udev_device* device) {
            if (const auto location = usbLocationID(text(udev_device_get_sysname(device))))
                devices.push_back({*location, attribute(device, "serial")});
        });
    forEachDevice(
        context.get(), "sound",
        [](udev_enumerate* list) { return udev_enumerate_add_match_sysname(list, "card*"); },
        [&](udev_device* card) {
            if (std::optional<USBAudioEngine> engine = engineOfCard(card))
                engines.push_back(std::move(*engine));
        });
    return USBRegistryContents::initWithDevices(std::move(devices), std::move(engines));
}

struct Registry {
    std::mutex mutex; // held while the bus is read, so that concurrent callers share one result
    USBRegistry::Reader reader;
    CXRef<USBRegistryContents> contents;
    Clock::time_point readAt;

    CXRef<USBRegistryContents> notOlderThan(std::chrono::milliseconds age)
    {
        const std::lock_guard lock(mutex);
        if (!contents || Clock::now() - readAt > age) {
            readAt = Clock::now();
            contents = reader ? reader() : readFromSystem();
        }
        return contents;
    }
};

Registry& registry()
{
    static auto& shared = *new Registry; // never destroyed: threads may still use it while the process exits
    return shared;
}

/// Parses `digits` as a decimal number. Returns nothing if any character is not a digit.
std::optional<uint32_t> number(std::string_view digits)
{
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return error == std::errc() && end == digits.data() + digits.size() ? std::optional(value) : std::nullopt;
}

} // namespace

CXRef<USBRegistryContents> USBRegistryContents::initWithDevices(std::vector<USBDevice> devices,
                                                                std::vector<USBAudioEngine> engines)
{
    return CXRef<USBRegistryContents>::adopt(new USBRegistryContents(std::move(devices), std::move(engines)));
}

USBRegistryContents::USBRegistryContents(std::vector<USBDevice> devices, std::vector<USBAudioEngine> engines)
    : _devices(std::move(devices)), _engines(std::move(engines))
{
    for (size_t i = 0; i < _devices.size(); ++i)
        if (_devices[i].locationID != 0)
            _deviceByLocation.emplace(_devices[i].locationID, i);
    for (size_t i = 0; i < _engines.size(); ++i)
        _engineByID.emplace(_engines[i].globalUniqueID, i);
}

const USBDevice* USBRegistryContents::deviceAtLocation(uint32_t locationID) const
{
    const auto found = _deviceByLocation.find(locationID);
    return found == _deviceByLocation.end() ? nullptr : &_devices[found->second];
}

const USBAudioEngine* USBRegistryContents::engineWithGlobalUniqueID(std::string_view uniqueID) const
{
    const auto found = _engineByID.find(uniqueID);
    return found == _engineByID.end() ? nullptr : &_engines[found->second];
}

bool USBRegistry::ask(CXBlockRef<bool(const USBRegistryContents&)> question)
{
    const CXRef<USBRegistryContents> before = registry().notOlderThan(maximumAge);
    if (before && question(*before))
        return true;
    const CXRef<USBRegistryContents> now = registry().notOlderThan(maximumAgeOfAMiss);
    return now && now != before && question(*now);
}

void USBRegistry::refresh()
{
    const std::lock_guard lock(registry().mutex);
    registry().contents = nullptr;
}

void USBRegistry::setReader(Reader reader)
{
    const std::lock_guard lock(registry().mutex);
    registry().reader = std::move(reader);
    registry().contents = nullptr;
}

std::optional<uint32_t> usbLocationID(std::string_view kernelName) noexcept
{
    const size_t dash = kernelName.find('-');
    if (dash == std::string_view::npos)
        return std::nullopt;
    const std::optional<uint32_t> bus = number(kernelName.substr(0, dash));
    if (!bus)
        return std::nullopt;
    uint32_t location = (*bus & 0xFFU) << 24;
    std::string_view ports = kernelName.substr(dash + 1);
    for (uint32_t shift = 24;;) {
        const size_t dot = std::min(ports.find('.'), ports.size());
        const std::optional<uint32_t> port = number(ports.substr(0, dot));
        if (!port)
            return std::nullopt;
        if (shift > 0) { // USB allows five hubs in a row: six ports
            shift -= 4;
            location |= (*port & 0xFU) << shift;
        }
        if (dot == ports.size())
            return location;
        ports.remove_prefix(dot + 1);
    }
}

} // namespace dxr
