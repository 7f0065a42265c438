#pragma once

#include "AudioHardwareTypes.h"
#include "CXBlock.h"
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

/// A stream: channels interleaved in one buffer.
struct HALStreamState {
    AudioObjectID objectID = kAudioObjectUnknown; ///< assigned by the model; drivers leave it unknown
    uint32_t channelCount = 2;
    uint32_t latencyFrames = 0; ///< added to the device's latency
    uint32_t terminalType = 0;
    bool operator==(const HALStreamState&) const = default;
};

/// A route that a direction of a device plays through or records from.
struct HALDataSourceState {
    uint32_t sourceID = 0;
    std::string name; ///< UTF-8
    bool operator==(const HALDataSourceState&) const = default;
};

/// One direction of a device.
struct HALDirectionState {
    std::vector<HALStreamState> streams;
    std::vector<HALDataSourceState> dataSources;
    std::optional<uint32_t> dataSourceID; ///< none: no current source
    std::optional<float> mainVolume;      ///< scalar 0..1; none: no control on element 0
    /// [c - 1] is element c; none or beyond the end: no control.
    std::vector<std::optional<float>> channelVolumes;
    std::optional<bool> muted;                             ///< none: no control
    std::optional<std::array<uint32_t, 2>> stereoChannels; ///< from 1; none: the property is absent
    uint32_t latencyFrames = 0;
    uint32_t safetyOffsetFrames = 0;
    bool canBeDefault = true;
    std::vector<std::string> channelNames; ///< [c - 1] names element c; may be shorter than the channels
    bool operator==(const HALDirectionState&) const = default;

    uint32_t channelCount() const noexcept;
};

/// The additional state of an aggregate device.
struct HALAggregateState { // NOLINT(bugprone-exception-escape): moving a property list throws nothing
    CXPlist composition;
    std::vector<AudioObjectID> activeSubDevices;
    /// Reads the status of the sub-devices, in the order of the composition. Threads: any. Never waits for
    /// hardware.
    CXBlock<std::vector<AudioAggregateSubDeviceStatus>()> subDeviceStatus;
    bool operator==(const HALAggregateState&) const = default;
};

/// The state of a device, from which every property is read. Text is valid UTF-8.
struct HALDeviceState {
    std::string uid;
    std::string name;
    std::optional<std::string> manufacturer; ///< none: the property is absent
    std::optional<std::string> modelUID;     ///< none: the property is absent
    uint32_t transportType = kAudioDeviceTransportTypeUnknown;
    bool isHidden = false;
    bool isRunningElsewhere = false; ///< running, but not for this process
    bool isStalled = false;          ///< IO was started but delivers no cycles at present: 'goin' is 0
    uint32_t clockDomain = 0;        ///< devices of one domain do not drift apart; 0: unknown
    /// Devices of one group domain can run in one cycle (HALDeviceDriver::startTogether()); 0: none.
    uint32_t groupDomain = 0;
    double nominalSampleRate = 48000.0;       ///< Hz
    double actualSampleRate = 0.0;            ///< Hz, as measured; 0: the nominal rate
    std::vector<AudioValueRange> sampleRates; ///< Hz; a single rate has minimum == maximum
    uint32_t bufferFrameSize = 512;
    AudioValueRange bufferFrameSizeRange{16.0, 8192.0};
    std::array<HALDirectionState, 2> directions; ///< by HALDirection
    std::optional<HALAggregateState> aggregate;  ///< none: not an aggregate
    bool operator==(const HALDeviceState&) const = default;

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

/// Converts between volume scalar (0..1, the position of a slider) and decibels by the cube law of Linux
/// volume sliders: 60 dB for each decade of the scalar. Scalar 0 is halSilenceDecibels.
float halDecibelsFromScalar(float scalar) noexcept;
float halScalarFromDecibels(float decibels) noexcept;
inline constexpr float halSilenceDecibels = -144.0F;
