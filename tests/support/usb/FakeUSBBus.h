#pragma once

#include <map>
#include <optional>
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
    /// Plugs in a sound card, at "3-1.4" for instance: bus 3, port 4 of the hub on port 1. Also adds the
    /// hubs.
    void plug(const std::string& place, uint32_t card, const Unit& unit);
    void unplug(const std::string& place);
    /// Returns udev's ID_PATH of a card at this place.
    static std::string busPath(const std::string& place);
    /// The card's folder in the kernel's device tree, without "/sys".
    std::string cardFolder(const std::string& place) const;

private:
    std::string _hub(const std::string& place);

    _UMockdevTestbed* const _testbed;
    std::map<std::string, std::string> _folders; // by place
    std::map<std::string, std::string> _cards;   // by place
};
