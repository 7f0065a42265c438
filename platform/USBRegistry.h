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

/// One USB device; hubs included.
struct USBDevice {
    uint32_t locationID = 0;                      ///< 0 is no location: such a device is never found
    std::optional<std::string> serialNumber = {}; ///< std::nullopt if it has none
};

/// One USB sound card.
struct USBAudioEngine {
    /// "AppleUSBAudioEngine:MAKER:PRODUCT:SERIAL:INTERFACE". Without a serial number, SERIAL is the location
    /// in hexadecimal.
    std::string globalUniqueID;
    std::optional<std::string> serialNumber; ///< std::nullopt if the device has none
    uint32_t locationID = 0;
    std::optional<uint32_t> cardNumber; ///< the card's, as in /proc/asound
    std::string busPath;                ///< udev's ID_PATH of the card; empty if unknown
};

/// The USB devices that were connected at one time.
/// Threads: immutable, any.
class DXR_EXPORT USBRegistryContents final : public CXObject {
public:
    static CXRef<USBRegistryContents> initWithDevices(std::vector<USBDevice> devices,
                                                      std::vector<USBAudioEngine> engines);

    /// In the order in which the system lists them.
    const std::vector<USBDevice>& devices() const noexcept { return _devices; }
    /// Returns null if there is none.
    const USBDevice* deviceAtLocation(uint32_t locationID) const;
    const std::vector<USBAudioEngine>& engines() const noexcept { return _engines; }
    /// Returns null if there is none.
    const USBAudioEngine* engineWithGlobalUniqueID(std::string_view uniqueID) const;

private:
    USBRegistryContents(std::vector<USBDevice> devices, std::vector<USBAudioEngine> engines);
    ~USBRegistryContents() override = default;

    const std::vector<USBDevice> _devices;
    const std::vector<USBAudioEngine> _engines;
    std::unordered_map<uint32_t, size_t> _deviceByLocation;
    std::unordered_map<std::string_view, size_t> _engineByID; // views of _engines
};

/// The USB devices and sound cards that the system reports. A location ID has the bus number in its top 8
/// bits, then one hexadecimal digit for each hub port from the root: port 4 of a hub on port 1 of bus 3 is
/// 0x03140000. All devices except root hubs have a location.
/// Threads:   any.
/// Real time: no; it reads system files.
/// Fails:     by finding no devices if the system does not list them (no udev, no /sys).
class DXR_EXPORT USBRegistry {
public:
    using Reader = CXBlock<CXRef<USBRegistryContents>()>;

    /// Calls `question` with the cached contents, which are at most a second old. If it returns false and the
    /// contents are more than a few milliseconds old, reads the bus again and calls it once more. So a device
    /// that was just connected is found, and many questions do not read the bus many times. Returns the last
    /// result.
    static bool ask(CXBlockRef<bool(const USBRegistryContents&)> question);
    /// Clears the cached contents: the next question reads the bus again.
    static void refresh();
    /// Reads from `reader` instead of the system, for simulated devices; an empty reader restores the system.
    /// `reader` must not use the registry and may be called on any thread.
    static void setReader(Reader reader);
};

/// Returns the location of the device with the kernel's name `kernelName`, such as "3-1.4". Returns nothing
/// for other names, including root hubs ("usb3").
std::optional<uint32_t> usbLocationID(std::string_view kernelName) noexcept;

} // namespace dxr
