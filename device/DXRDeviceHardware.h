#pragma once

#include "AudioHardware.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The present state of one direction of a hardware device: every call reads the hardware.
/// Threads:   immutable; any.
/// Real time: no.
/// Fails:     returns the value stated for each function; writes return whether the hardware accepted them.
class DXRDeviceHardware {
public:
    DXRDeviceHardware(AudioObjectID deviceID, bool isInput) noexcept : _deviceID(deviceID), _isInput(isInput)
    {}

    AudioObjectID deviceID() const noexcept { return _deviceID; }
    /// Whether the device's unique ID can still be read.
    bool isPresent() const;
    uint32_t channelCount() const;    ///< 0 if it cannot be read
    std::string manufacturer() const; ///< empty if unknown, as are the next two
    std::string model() const;
    std::string name() const;
    std::string transportType() const; ///< four characters; empty if unknown
    /// Two channel numbers from 1; the first channels if unknown.
    std::vector<uint32_t> preferredStereoChannels(uint32_t channelCount) const;
    double sampleRate() const; ///< Hz; 44100 if it cannot be read
    /// Hz, ascending. Of a range, those of four usual rates that are in it. If there are none, only
    /// `sampleRate`.
    std::vector<double> availableSampleRates(double sampleRate) const;
    std::map<std::string, uint32_t> sources() const; ///< IDs by name; sources without a name are left out
    std::string source() const;                      ///< the current source's name; empty if there is none
    std::optional<bool> isMuted() const;             ///< empty without a mute control
    /// Scalar 0 to 1: from the main control, otherwise the mean of the channels' controls; empty without any.
    std::optional<double> volume(std::span<const uint32_t> channels) const;

    bool setSampleRate(double rate) const;
    bool setSource(uint32_t sourceID) const;
    bool setMuted(bool muted) const;
    /// `element`: 0 for the main control, or a channel number.
    bool setVolume(double scalar, uint32_t element) const;

private:
    uint32_t _scope() const noexcept
    {
        return _isInput ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
    }

    AudioObjectID _deviceID;
    bool _isInput;
};

/// `texts` in alphabetical order, ignoring case.
std::vector<std::string> sortedCaseInsensitively(std::vector<std::string> texts);
