#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"
#include "HALDirection.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

/// kAudioObjectPropertyScopeInput or …Output.
constexpr uint32_t halScope(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? kAudioObjectPropertyScopeInput
                                            : kAudioObjectPropertyScopeOutput;
}

/// A stream: channels that travel interleaved.
struct HALStreamState {
    AudioObjectID objectID = kAudioObjectUnknown; ///< given by the model when the stream is new
    uint32_t channelCount = 2;
    uint32_t latencyFrames = 0; ///< on top of the device's
    uint32_t terminalType = 0;
    bool operator==(const HALStreamState&) const = default;
};

/// What a direction of a device plays through or records from.
struct HALDataSourceState {
    uint32_t sourceID = 0;
    std::string name; ///< UTF-8
    bool operator==(const HALDataSourceState&) const = default;
};

/// What a device is in one direction.
struct HALDirectionState {
    std::vector<HALStreamState> streams;
    std::vector<HALDataSourceState> dataSources;
    std::optional<uint32_t> dataSourceID; ///< none: no current source
    std::optional<float> mainVolume;      ///< scalar 0..1; none: no control on element 0
    std::vector<std::optional<float>>
        channelVolumes;        ///< [c - 1] is element c; none, or beyond the end: no control
    std::optional<bool> muted; ///< none: no control
    std::optional<std::array<uint32_t, 2>> stereoChannels; ///< from 1; none: the property is absent
    uint32_t latencyFrames = 0;
    uint32_t safetyOffsetFrames = 0;
    bool canBeDefault = true;
    std::vector<std::string> channelNames; ///< [c - 1] names element c; may be shorter than the channels
    bool operator==(const HALDirectionState&) const = default;

    uint32_t channelCount() const noexcept;
};

/// What an aggregate device is made of.
struct HALAggregateState { // NOLINT(bugprone-exception-escape): moving a property list throws nothing
    CXPlist composition;
    std::vector<AudioObjectID> activeSubDevices;
    bool operator==(const HALAggregateState&) const = default;
};

/// Everything the HAL says about a device. Text is UTF-8 already; whatever came from outside was made so.
struct HALDeviceState {
    std::string uid;
    std::string name;
    std::optional<std::string> manufacturer; ///< none: the property is absent
    std::optional<std::string> modelUID;     ///< none: the property is absent
    uint32_t transportType = kAudioDeviceTransportTypeUnknown;
    bool isHidden = false;
    bool isRunningElsewhere = false;          ///< running, though not for this process
    bool isStalled = false;                   ///< IO was started and delivers no cycles at present: 'goin' is 0
    uint32_t clockDomain = 0;                 ///< devices of one domain do not drift apart; 0: unknown
    double nominalSampleRate = 48000.0;       ///< Hz
    double actualSampleRate = 0.0;            ///< Hz, as measured; 0: take the nominal one
    std::vector<AudioValueRange> sampleRates; ///< Hz; a single rate has minimum == maximum
    uint32_t bufferFrameSize = 512;
    AudioValueRange bufferFrameSizeRange{16.0, 8192.0};
    std::array<HALDirectionState, 2> directions; ///< by HALDirection
    std::optional<HALAggregateState> aggregate;  ///< none: it is a device of its own

    HALDirectionState& operator[](HALDirection direction)
    {
        return directions[static_cast<size_t>(direction)];
    }
    const HALDirectionState& operator[](HALDirection direction) const
    {
        return directions[static_cast<size_t>(direction)];
    }
    bool canSampleRate(double rate) const noexcept;
};

/// The addresses whose values differ between two states of one device, in no particular order.
std::vector<AudioObjectPropertyAddress> halChangedAddresses(const HALDeviceState& before,
                                                            const HALDeviceState& after);
/// Volume scalar (0..1, what a slider shows) and decibels: a cube law, as every Linux volume slider draws it,
/// so 60 dB for each decade of the scalar. Scalar 0 is halSilenceDecibels.
float halDecibelsFromScalar(float scalar) noexcept;
float halScalarFromDecibels(float decibels) noexcept;
inline constexpr float halSilenceDecibels = -144.0F;
