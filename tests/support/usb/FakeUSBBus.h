#pragma once

#include "USBRegistry.h"

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <umockdev.h>

/// A simulated USB bus that replaces the computer's in everything this process reads from /sys and udev. The
/// process must run with umockdev's library preloaded.
class FakeUSBBus {
public:
    FakeUSBBus()
    {
        if (!umockdev_in_mock_environment())
            throw std::runtime_error("umockdev's library is not preloaded");
        dxr::USBRegistry::refresh();
    }
    ~FakeUSBBus()
    {
        g_object_unref(_testbed);
        dxr::USBRegistry::refresh();
    }
    FakeUSBBus(const FakeUSBBus&) = delete;

    struct Unit {
        std::string manufacturer = "Maker", product = "Product";
        std::optional<std::string> serial = {};
    };
    /// Plugs in a sound card and its hubs, at "3-1.4" for instance: bus 3, port 4 of the hub on port 1.
    void plug(const std::string& place, uint32_t card, const Unit& unit)
    {
        const std::string device = "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n";
        for (size_t end = 0; (end = place.find_first_of("-.", end + 1)) != std::string::npos;)
            _add(_folderOf(place.substr(0, end)), device); // the bus and the hubs
        _add(_folderOf(place), device + "A: idVendor=1235\nA: idProduct=8211\nA: manufacturer=" +
                                   unit.manufacturer + "\nA: product=" + unit.product + "\n" +
                                   (unit.serial ? "A: serial=" + *unit.serial + "\n" : ""));
        _add(_interfaceOf(place), "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nA: bInterfaceNumber=00\n");
        _cards[place] = _interfaceOf(place) + "/card" + std::to_string(card);
        _add(_cards[place], "E: SUBSYSTEM=sound\nE: ID_PATH=" + busPath(place) + "\n");
        dxr::USBRegistry::refresh();
    }
    void unplug(const std::string& place)
    {
        // One by one, because umockdev does not remove the links to devices below.
        for (const std::string& each : {_cards.at(place), _interfaceOf(place), _folderOf(place)}) {
            umockdev_testbed_remove_device(_testbed, ("/sys" + each).c_str());
            _folders.erase(each);
        }
        dxr::USBRegistry::refresh();
    }
    /// Returns udev's ID_PATH of a card at this place.
    static std::string busPath(const std::string& place)
    {
        return "pci-0000:00:14.0-usb-0:" + place.substr(place.find('-') + 1) + ":1.0";
    }
    /// The card's folder in the kernel's device tree, without "/sys".
    const std::string& cardFolder(const std::string& place) const { return _cards.at(place); }

private:
    /// The folder of the device at "3-1.4", without "/sys": below those of bus 3 and of the hub at 3-1.
    static std::string _folderOf(const std::string& place)
    {
        const size_t end = place.find_last_of("-.");
        return (end == std::string::npos ? "/devices/usb" : _folderOf(place.substr(0, end)) + "/") + place;
    }
    static std::string _interfaceOf(const std::string& place)
    {
        return _folderOf(place) + "/" + place + ":1.0";
    }
    void _add(const std::string& folder, const std::string& description)
    {
        const std::string text = "P: " + folder + "\n" + description;
        if (_folders.insert(folder).second &&
            !umockdev_testbed_add_from_string(_testbed, text.c_str(), nullptr))
            throw std::runtime_error("umockdev: cannot add " + folder);
    }

    UMockdevTestbed* const _testbed = umockdev_testbed_new();
    std::set<std::string> _folders;            // of all devices, without "/sys"
    std::map<std::string, std::string> _cards; // the card's folder, by place
};
