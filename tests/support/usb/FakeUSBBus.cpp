#include "FakeUSBBus.h"

#include "USBRegistry.h"

#include <stdexcept>
#include <umockdev.h>

namespace {

/// The folder of the device at "3-1.4", without "/sys": below those of bus 3 and of the hub at 3-1.
std::string folderOf(const std::string& place)
{
    const size_t end = place.find_last_of("-.");
    return end == std::string::npos ? "/devices/usb" + place : folderOf(place.substr(0, end)) + "/" + place;
}

std::string interfaceOf(const std::string& place)
{
    return folderOf(place) + "/" + place + ":1.0";
}

constexpr const char* device = "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n";

} // namespace

FakeUSBBus::FakeUSBBus() : _testbed(umockdev_testbed_new())
{
    if (!umockdev_in_mock_environment())
        throw std::runtime_error("umockdev's library is not preloaded");
    dxr::USBRegistry::refresh();
}

FakeUSBBus::~FakeUSBBus()
{
    g_object_unref(_testbed);
    dxr::USBRegistry::refresh();
}

void FakeUSBBus::_add(const std::string& folder, const std::string& description)
{
    if (!_folders.insert(folder).second)
        return;
    if (!umockdev_testbed_add_from_string(_testbed, ("P: " + folder + "\n" + description).c_str(), nullptr))
        throw std::runtime_error("umockdev: cannot add " + folder);
}

void FakeUSBBus::plug(const std::string& place, uint32_t card, const Unit& unit)
{
    for (size_t end = 0; (end = place.find_first_of("-.", end + 1)) != std::string::npos;)
        _add(folderOf(place.substr(0, end)), device); // the bus and the hubs
    _add(folderOf(place), device + ("A: idVendor=1235\nA: idProduct=8211\nA: manufacturer=" +
                                    unit.manufacturer + "\nA: product=" + unit.product + "\n" +
                                    (unit.serial ? "A: serial=" + *unit.serial + "\n" : "")));
    _add(interfaceOf(place), "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nA: bInterfaceNumber=00\n");
    _cards[place] = interfaceOf(place) + "/card" + std::to_string(card);
    _add(_cards[place], "E: SUBSYSTEM=sound\nE: ID_PATH=" + busPath(place) + "\n");
    dxr::USBRegistry::refresh();
}

void FakeUSBBus::unplug(const std::string& place)
{
    // One by one, because umockdev does not remove the links to devices below.
    for (const std::string& each : {_cards.at(place), interfaceOf(place), folderOf(place)}) {
        umockdev_testbed_remove_device(_testbed, ("/sys" + each).c_str());
        _folders.erase(each);
    }
    dxr::USBRegistry::refresh();
}

std::string FakeUSBBus::busPath(const std::string& place)
{
    return "pci-0000:00:14.0-usb-0:" + place.substr(place.find('-') + 1) + ":1.0";
}
