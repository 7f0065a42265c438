#pragma once

#include "AudioHardware.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// One direction of a hardware device now: every call asks the hardware.
/// Threads:   immutable; any.
/// Real time: no.
/// Fails:     with the value named; writes return whether the hardware accepted them.
class DXRDeviceHardware {
public:
    DXRDeviceHardware(AudioObjectID deviceID, bool isInput) noexcept : _deviceID(deviceID), _isInput(isInput)
    {}

    AudioObjectID deviceID() const noexcept { return _deviceID; }
    /// Whether its unique ID can still be read.
    bool isPresent() const;
    uint32_t channelCount() const;    ///< 0 when it cannot be read
    std::string manufacturer() const; ///< empty when unknown, like the next two
    std::string model() const;
    std::string name() const;
    std::string transportType() const; ///< four characters; empty when unknown
    /// Channel numbers from 1, always two: the first channels when unknown.
    std::vector<uint32_t> preferredStereoChannels(uint32_t channelCount) const;
    double sampleRate() const; ///< Hz; 44100 when it cannot be read
    /// Hz, ascending. Of a range, those of four usual rates that lie in it; `sampleRate` when that leaves
    /// none.
    std::vector<double> availableSampleRates(double sampleRate) const;
    std::map<std::string, uint32_t> sources() const; ///< IDs by name; the nameless are left out
    std::string source() const;                      ///< the current one's name; empty when there is none
    std::optional<bool> isMuted() const;             ///< nothing without such a control
    /// Scalar 0 to 1: of the main control, else the mean of the channels' controls; nothing without any.
    std::optional<double> volume(std::span<const uint32_t> channels) const;

    bool setSampleRate(double rate) const;
    bool setSource(uint32_t sourceID) const;
    bool setMuted(bool muted) const;
    /// Of the main control (element 0) or a channel's.
    bool setVolume(double scalar, uint32_t element) const;

private:
    uint32_t _scope() const noexcept
    {
        return _isInput ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
    }

    AudioObjectID _deviceID;
    bool _isInput;
};

/// `texts` in their order for people: upper and lower case count the same.
std::vector<std::string> sortedCaseInsensitively(std::vector<std::string> texts);
