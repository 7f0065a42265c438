#pragma once

#include "PipeWireProperties.h"

#include <cstdint>
#include <optional>
#include <string>

// How a device is called, and what it is, from the properties of its node and its card.
// Threads: any; pipeWireUID() of a USB device asks the system about its bus.

/// The properties of a node, and beneath them those of its card, if it has one.
class PipeWireNodeProperties {
public:
    PipeWireNodeProperties(const PipeWireProperties& node, const PipeWireProperties* card)
        : _node(node), _card(card)
    {}
    const PipeWireProperties& node() const noexcept { return _node; }
    const PipeWireProperties* card() const noexcept { return _card; }
    /// The node's, else the card's, else empty.
    const std::string& operator[](std::string_view key) const;

private:
    const PipeWireProperties& _node;
    const PipeWireProperties* const _card;
};

/// What stays the same when the device, the session manager or the server comes again: the node's name, or,
/// for a whole card, the card's, without the numbers that the session manager gives by order of arrival. A
/// USB device without a serial number carries the location it is plugged in. Never empty.
std::string pipeWireUID(const PipeWireNodeProperties& properties, bool isWholeCard);
/// What people call the device.
std::string pipeWireDeviceName(const PipeWireNodeProperties& properties, bool isWholeCard);
/// Nothing when it is not known.
std::optional<std::string> pipeWireManufacturer(const PipeWireNodeProperties& properties);
std::optional<std::string> pipeWireModelUID(const PipeWireNodeProperties& properties);
/// kAudioDeviceTransportType….
uint32_t pipeWireTransportType(const PipeWireNodeProperties& properties);
/// Whether the sound comes from another machine, or goes to one.
bool pipeWireIsNetwork(const PipeWireNodeProperties& properties);
/// How long sound takes from or to the other machine, by what a network node says of itself; 0 when it says
/// nothing, and for all other nodes, which report latency on their ports.
double pipeWireNetworkSeconds(const PipeWireNodeProperties& properties);
/// Whether the device is none of the user's business.
bool pipeWireIsHidden(const PipeWireProperties& node);

/// Where a USB device is plugged: bus in the top 8 bits, then one hexadecimal digit for each hub port from
/// the root. `path` is a folder of the kernel's device tree, or udev's path of a bus, which lacks the bus
/// number.
std::optional<uint32_t> pipeWireUSBLocation(const std::string& path);
