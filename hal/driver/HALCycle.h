#pragma once

#include "AudioHardwareTypes.h"

#include <cstdint>
#include <span>

/// The samples of one stream in one cycle: frame k of channel c is samples[k * channelCount + c].
struct HALStreamBlock {
    float* samples = nullptr; ///< null: no data in this cycle
    uint32_t channelCount = 0;
};

/// The samples and times of one cycle of a device, which its IO thread passes to HALIOProcTable::runCycle().
struct HALCycle {
    AudioTimeStamp now{};
    AudioTimeStamp inputTime{};  ///< when the first input frame was captured
    AudioTimeStamp outputTime{}; ///< when the first output frame will be played
    uint32_t frameCount = 0;
    std::span<const HALStreamBlock> input;
    std::span<const HALStreamBlock> output; ///< filled by runCycle(), which ignores the earlier contents
};
