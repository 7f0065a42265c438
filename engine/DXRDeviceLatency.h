#pragma once

#include <string>

/// How long one direction of a device keeps samples between an IO block and the air: from the air to the block that gets
/// them for an input, from the block that made them to the air for an output. By what holds them, in frames of the device;
/// fractions where rates are converted. The frames() of an input and of an output add up to the pair's round trip.
struct DXRDeviceLatency {
    std::string deviceUID;
    bool isInput = false;
    double sampleRate = 0.0;         ///< of the device, nominal, Hz
    double deviceFrames = 0.0;       ///< the device's and its stream's own, as the device reports it
    double safetyOffsetFrames = 0.0; ///< what the hardware keeps between itself and the cycle
    double cycleFrames = 0.0; ///< the hardware's buffer: a cycle is captured before it, and played after it
    double blockFrames = 0.0; ///< output only: a block's frames are played after those of the block before
    double converterFrames = 0.0; ///< kept for the next block where frame counts or rates differ
    double ringFrames = 0.0;      ///< held in an aggregate that other clocks than the device's own run

    /// From the first frame of a block.
    double frames() const noexcept
    {
        return deviceFrames + safetyOffsetFrames + cycleFrames + blockFrames + converterFrames + ringFrames;
    }
    double seconds() const noexcept { return sampleRate > 0.0 ? frames() / sampleRate : 0.0; }
};
