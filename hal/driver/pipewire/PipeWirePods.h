#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct spa_pod;

// The parameters of PipeWire's objects as plain values, read and built. What comes from the server is not
// trusted: a value of the wrong type is one that is not there.
// Threads: any.

/// Volume and mute, of a node or of the active route of a card.
struct PipeWireVolumeProps {
    std::vector<float> amplitudes; ///< linear, per channel; empty when there is no volume
    std::optional<bool> isMuted;   ///< none when there is no mute
    bool operator==(const PipeWireVolumeProps&) const = default;
};

/// A way in or out of a card: speakers, headphones, a microphone.
struct PipeWireRoute {
    uint32_t index = 0;
    bool isInput = false;
    bool isUnplugged = false;
    std::string description;        ///< as the server has it
    std::string portType;           ///< "hdmi", "headphones"; empty when unknown
    std::vector<uint32_t> devices;  ///< the card's sub-devices it can serve
    std::vector<uint32_t> profiles; ///< the card's profiles it exists in; empty means all
    std::optional<uint32_t> device; ///< for an active route: the sub-device it serves
    PipeWireVolumeProps props;      ///< for an active route
};

/// What rates a node's formats take, in Hz: single rates with lowest == highest, and ranges.
struct PipeWireRateRange {
    uint32_t lowest;
    uint32_t highest;
};

/// What a port says of the time between it and the hardware.
struct PipeWireLatency {
    bool isInput = false; ///< of what flows into the port
    double quantums = 0.0;
    uint32_t frames = 0;
    uint64_t nanoseconds = 0;
    bool operator==(const PipeWireLatency&) const = default;
};

PipeWireVolumeProps pipeWireParseProps(const spa_pod* param);
std::optional<PipeWireRoute> pipeWireParseRoute(const spa_pod* param);
/// The profile's index.
std::optional<uint32_t> pipeWireParseProfile(const spa_pod* param);
/// The rates of one of a node's formats; nothing for one that is no plain audio.
std::vector<PipeWireRateRange> pipeWireParseRates(const spa_pod* format);
std::optional<PipeWireLatency> pipeWireParseLatency(const spa_pod* param);

/// Builds a node's properties with this change and hands them to `send`. What is none stays as it is.
void pipeWireWithProps(const PipeWireVolumeProps& change, const std::function<void(const spa_pod*)>& send);
/// The same for the choice of a route of a card's sub-device, with the change to its volume.
void pipeWireWithRoute(uint32_t index, uint32_t device, const PipeWireVolumeProps& change,
                       const std::function<void(const spa_pod*)>& send);
