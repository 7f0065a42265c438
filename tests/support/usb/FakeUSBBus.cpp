#include "FakeUSBBus.h"

#include "USBRegistry.h"

#include <stdexcept>
#include <umockdev.h>
#include <vector>

namespace {

std::string added(UMockdevTestbed* testbed, const char* subsystem, const std::string& name,
                  const std::string& parent,
                  const std::vector<std::pair<std::string, std::string>>& attributes,
                  const std::vector<std::pair<std::string, std::string>>& properties)
{
    const auto pointers = [](const auto& pairs) {
        std::vector<char*> list;
        for (const auto& [key, value] : pairs) {
            list.push_back(const_cast<char*>(key.c_str()));
            list.push_back(const_cast<char*>(value.c_str()));
        }
        list.push_back(nullptr);
        return list;
    };
    gchar* const path = umockdev_testbed_add_devicev(
        testbed, subsystem, name.c_str(), parent.empty() ? nullptr : parent.c_str(),
        pointers(attributes).data(), pointers(properties).data());
    if (!path)
        throw std::runtime_error("umockdev: cannot add " + name);
    std::string result = path;
    g_free(path);
    return result;
}

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

std::string FakeUSBBus::_hub(const std::string& place)
{
    const size_t end = place.find_last_of("-.");
    const bool isRoot = place[end] == '-';
    const std::string hub = isRoot ? "usb" + place.substr(0, end) : place.substr(0, end);
    std::string& folder = _folders[hub];
    if (folder.empty())
        folder = added(_testbed, "usb", hub, isRoot ? "" : _hub(hub), {}, {{"DEVTYPE", "usb_device"}});
    return folder;
}

void FakeUSBBus::plug(const std::string& place, uint32_t card, const Unit& unit)
{
    std::vector<std::pair<std::string, std::string>> attributes{{"manufacturer", unit.manufacturer},
                                                                {"product", unit.product},
                                                                {"idVendor", "1235"},
                                                                {"idProduct", "8211"}};
    if (unit.serial)
        attributes.emplace_back("serial", *unit.serial);
    const std::string device =
        added(_testbed, "usb", place, _hub(place), attributes, {{"DEVTYPE", "usb_device"}});
    const std::string interface = added(_testbed, "usb", place + ":1.0", device, {{"bInterfaceNumber", "00"}},
                                        {{"DEVTYPE", "usb_interface"}});
    _cards[place] =
        added(_testbed, "sound", "card" + std::to_string(card), interface, {}, {{"ID_PATH", busPath(place)}});
    _folders[place] = device;
    dxr::USBRegistry::refresh();
}

void FakeUSBBus::unplug(const std::string& place)
{
    const std::string& device = _folders.at(place);
    // One by one, because umockdev does not remove the links to devices below.
    for (const std::string& each : {_cards.at(place), device + "/" + place + ":1.0", device})
        umockdev_testbed_remove_device(_testbed, each.c_str());
    _folders.erase(place);
    _cards.erase(place);
    dxr::USBRegistry::refresh();
}

std::string FakeUSBBus::busPath(const std::string& place)
{
    return "pci-0000:00:14.0-usb-0:" + place.substr(place.find('-') + 1) + ":1.0";
}

std::string FakeUSBBus::cardFolder(const std::string& place) const
{
    return _cards.at(place).substr(4); // "/sys"
}
