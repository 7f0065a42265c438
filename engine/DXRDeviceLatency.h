#pragma once

#include <string>

/// How long samples take between the air and an IO block in one direction of a device: from the air to the
/// block that receives them for an input, from the block that writes them to the air for an output. Itemised
/// by cause, in frames of the device, with fractions if rates are converted. frames() of an input plus
/// frames() of an output is the pair's round trip.
struct DXRDeviceLatency {
    std::string deviceUID;
    bool isInput = false;
    double sampleRate = 0.0;         ///< of the device, nominal, Hz
    double deviceFrames = 0.0;       ///< of the device and its stream, as the device reports it
    double safetyOffsetFrames = 0.0; ///< between the hardware's position and the cycle
    double cycleFrames = 0.0;        ///< the hardware's buffer: captured before its cycle, played after it
    double blockFrames = 0.0;        ///< output only: a block is played after the block before it
    double converterFrames = 0.0;    ///< held for the next block if frame counts or rates differ
    double ringFrames = 0.0;         ///< held in the aggregate's ring if the device is not its clock

    /// Measured from the first frame of a block.
    double frames() const noexcept
    {
        return deviceFrames + safetyOffsetFrames + cycleFrames + blockFrames + converterFrames + ringFrames;
    }
    double seconds() const noexcept { return sampleRate > 0.0 ? frames() / sampleRate : 0.0; }
};
