#pragma once

#include "CXBlock.h"
#include "CXBlockRef.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace dxr {

/// One device on the universal serial bus, a hub too.
struct USBDevice {
    uint32_t locationID = 0;                      ///< 0 is no location: such a device is never found
    std::optional<std::string> serialNumber = {}; ///< nothing when it has none
};

/// One sound card on that bus.
struct USBAudioEngine {
    /// "AppleUSBAudioEngine:MAKER:PRODUCT:SERIAL:INTERFACE"; the location in hexadecimal where there is no
    /// serial number.
    std::string globalUniqueID;
    std::optional<std::string> serialNumber; ///< nothing when the device has none
    uint32_t locationID = 0;
    std::optional<uint32_t> cardNumber; ///< of its card, as in /proc/asound
    std::string busPath;                ///< udev's ID_PATH of the card; empty when it is not known
};

/// The devices that were on the bus at one time.
/// Threads: immutable, any.
class DXR_EXPORT USBRegistryContents final : public CXObject {
public:
    static CXRef<USBRegistryContents> initWithDevices(std::vector<USBDevice> devices,
                                                      std::vector<USBAudioEngine> engines);

    /// In the order in which the system lists them.
    const std::vector<USBDevice>& devices() const noexcept { return _devices; }
    /// Null when there is none.
    const USBDevice* deviceAtLocation(uint32_t locationID) const;
    const std::vector<USBAudioEngine>& engines() const noexcept { return _engines; }
    /// Null when there is none.
    const USBAudioEngine* engineWithGlobalUniqueID(std::string_view uniqueID) const;

private:
    USBRegistryContents(std::vector<USBDevice> devices, std::vector<USBAudioEngine> engines);
    ~USBRegistryContents() override = default;

    const std::vector<USBDevice> _devices;
    const std::vector<USBAudioEngine> _engines;
    std::unordered_map<uint32_t, size_t> _deviceByLocation;
    std::unordered_map<std::string_view, size_t> _engineByID; // views of _engines
};

/// What the system knows of the devices on the universal serial bus, as far as it distinguishes audio
/// devices. A location ID has the bus in its top 8 bits, then one hexadecimal digit for each hub port from
/// the root, so that port 4 of a hub on port 1 of bus 3 is 0x03140000. Devices with a location are all but
/// the root hubs.
/// Threads:   any.
/// Real time: no; it reads files of the system's.
/// Fails:     with no devices, where the system does not list them (no udev, no /sys).
class DXR_EXPORT USBRegistry {
public:
    using Reader = CXBlock<CXRef<USBRegistryContents>()>;

    /// Asks about the contents: as they were a moment ago, and again, as they are now, when the result is
    /// false. So what is there is found at any time, and a thousand questions do not read the bus a thousand
    /// times.
    static bool ask(CXBlockRef<bool(const USBRegistryContents&)> question);
    /// Forgets what was read: the next question reads again.
    static void refresh();
    /// Asks `reader` instead of the system from now on, for devices that are simulated; an empty one brings
    /// the system back. `reader` must not use the registry, and may be called on any thread.
    static void setReader(Reader reader);
};

/// The location of a device from the kernel's name of it, "3-1.4"; nothing for other names, root hubs
/// ("usb3") included.
std::optional<uint32_t> usbLocationID(std::string_view kernelName) noexcept;

} // namespace dxr
