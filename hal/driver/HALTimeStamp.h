#pragma once

#include "AudioHardwareTypes.h"

/// When a device is at a frame, by the host clock (a host tick is a nanosecond); before its beginning: 0. The clock runs at
/// `rateRatio` frames per nominal frame.
inline AudioTimeStamp halTimeStamp(double sampleTime, double nanoseconds, double rateRatio) noexcept
{
    AudioTimeStamp time{};
    time.sampleTime = sampleTime;
    time.hostTime = nanoseconds > 0.0 ? static_cast<uint64_t>(nanoseconds) : 0;
    time.rateScalar = 1.0 / rateRatio;
    time.flags =
        kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    return time;
}
