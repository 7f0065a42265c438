#pragma once

#include "AudioHardwareTypes.h"

/// A time stamp of sample time `sampleTime` at `nanoseconds` on the host clock, whose tick is a nanosecond; a
/// negative time becomes 0. The device's clock runs at `rateRatio` frames per nominal frame.
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
