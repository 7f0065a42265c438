#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct spa_pod;

// Reads and builds the parameters of PipeWire objects as plain values. Data from the server is not trusted: a
// value of the wrong type counts as missing.
// Threads: any.

/// Volume and mute, of a node or of the active route of a card.
struct PipeWireVolumeProps {
    std::vector<float> amplitudes; ///< linear, per channel; empty: no volume control
    std::optional<bool> isMuted;   ///< nullopt: no mute control
    bool operator==(const PipeWireVolumeProps&) const = default;
};

/// A route of a card: speakers, headphones, a microphone.
struct PipeWireRoute {
    uint32_t index = 0;
    bool isInput = false;
    bool isUnplugged = false;
    std::string description;        ///< as received; may be invalid UTF-8
    std::string portType;           ///< "hdmi", "headphones"; empty if unknown
    std::vector<uint32_t> devices;  ///< the card's sub-devices that can use it
    std::vector<uint32_t> profiles; ///< the card's profiles that have it; empty: all
    std::optional<uint32_t> device; ///< for an active route: the sub-device that uses it
    PipeWireVolumeProps props;      ///< for an active route
};

/// A range of rates (Hz) that a node's format supports; a single rate has lowest == highest.
struct PipeWireRateRange {
    uint32_t lowest;
    uint32_t highest;
};

/// The latency between a port and the hardware, as the port reports it: the sum of three parts.
struct PipeWireLatency {
    bool isInput = false; ///< whether it applies to audio that flows into the port
    double quantums = 0.0;
    uint32_t frames = 0;
    uint64_t nanoseconds = 0;
    bool operator==(const PipeWireLatency&) const = default;
};

PipeWireVolumeProps pipeWireParseProps(const spa_pod* param);
std::optional<PipeWireRoute> pipeWireParseRoute(const spa_pod* param);
/// The profile's index.
std::optional<uint32_t> pipeWireParseProfile(const spa_pod* param);
/// The rates of one of a node's formats; empty for a format that is not plain audio.
std::vector<PipeWireRateRange> pipeWireParseRates(const spa_pod* format);
std::optional<PipeWireLatency> pipeWireParseLatency(const spa_pod* param);

/// Builds a node's properties with this change and passes them to `send`. Empty members change nothing.
void pipeWireWithProps(const PipeWireVolumeProps& change, const std::function<void(const spa_pod*)>& send);
/// The same for switching a card's sub-device to a route, with the change to the route's volume.
void pipeWireWithRoute(uint32_t index, uint32_t device, const PipeWireVolumeProps& change,
                       const std::function<void(const spa_pod*)>& send);
