#pragma once

#include "PipeWireProperties.h"

#include <cstdint>
#include <optional>
#include <string>

// Derives the names, UID and kind of a device from the properties of its node and its card.
// Threads: any. pipeWireUID() of a USB device queries the system's USB registry.

/// The properties of a node, with those of its card, if it has one, as a fallback.
class PipeWireNodeProperties {
public:
    PipeWireNodeProperties(const PipeWireProperties& node, const PipeWireProperties* card)
        : _node(node), _card(card)
    {}
    const PipeWireProperties& node() const noexcept { return _node; }
    const PipeWireProperties* card() const noexcept { return _card; }
    /// The node's value if it is not empty, else the card's, else empty.
    const std::string& operator[](std::string_view key) const;

private:
    const PipeWireProperties& _node;
    const PipeWireProperties* const _card;
};

/// The device's UID, which stays the same when the device is replugged and when the session manager or the
/// server restarts: the node's name, or the card's for a whole card, without the numbers that the session
/// manager assigns in order of arrival. For a USB device without a serial number, the location of its port is
/// appended. Never empty.
std::string pipeWireUID(const PipeWireNodeProperties& properties, bool isWholeCard);
/// The name to show to users; empty if the device has none.
std::string pipeWireDeviceName(const PipeWireNodeProperties& properties, bool isWholeCard);
/// nullopt if unknown.
std::optional<std::string> pipeWireManufacturer(const PipeWireNodeProperties& properties);
std::optional<std::string> pipeWireModelUID(const PipeWireNodeProperties& properties);
/// One of kAudioDeviceTransportType….
uint32_t pipeWireTransportType(const PipeWireNodeProperties& properties);
/// Whether the device receives audio from, or sends it to, another machine.
bool pipeWireIsNetwork(const PipeWireNodeProperties& properties);
/// The latency (s) from or to the other machine, as a network node states it in its properties; 0 if it
/// states none, and for all other nodes, which report latency on their ports.
double pipeWireNetworkSeconds(const PipeWireNodeProperties& properties);
/// Whether the device is internal and must be hidden from users.
bool pipeWireIsHidden(const PipeWireProperties& node);

/// The location of a USB device: bus in the top 8 bits, then one hexadecimal digit for each hub port from the
/// root. `path` is a folder of the kernel's device tree, or a udev bus path, which lacks the bus number.
std::optional<uint32_t> pipeWireUSBLocation(const std::string& path);
