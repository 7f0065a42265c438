#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

struct _UMockdevTestbed;

/// A simulated USB bus that replaces the computer's in everything this process reads from /sys and udev. The
/// process must run with umockdev's library preloaded.
class FakeUSBBus {
public:
    FakeUSBBus();
    ~FakeUSBBus();
    FakeUSBBus(const FakeUSBBus&) = delete;
    FakeUSBBus& operator=(const FakeUSBBus&) = delete;

    struct Unit {
        std::string manufacturer = "Maker";
        std::string product = "Product";
        std::optional<std::string> serial = {};
    };
    /// Plugs in a sound card and its hubs, at "3-1.4" for instance: bus 3, port 4 of the hub on port 1.
    void plug(const std::string& place, uint32_t card, const Unit& unit);
    void unplug(const std::string& place);
    /// Returns udev's ID_PATH of a card at this place.
    static std::string busPath(const std::string& place);
    /// The card's folder in the kernel's device tree, without "/sys".
    const std::string& cardFolder(const std::string& place) const { return _cards.at(place); }

private:
    void _add(const std::string& folder, const std::string& description);

    _UMockdevTestbed* const _testbed;
    std::set<std::string> _folders;            // of all devices, without "/sys"
    std::map<std::string, std::string> _cards; // the card's folder, by place
};
