#pragma once

#include "DeviceProperties.h"

#include <cmath>
#include <functional>

// Changes on devices, each waited for until the hardware has taken it over.
// Threads: any. They wait up to two seconds, besides the hardware's own time.

/// Whether `isDone` comes true in time.
bool comesTrue(const std::function<bool()>& isDone);

/// Writes a property and waits until it reads so, to within `tolerance`. `what` names it for the message of
/// the ToolFailure that is thrown when it does not come to that; `name` is the device's, printable.
void failSetting(const std::string& name, const char* what, HALStatus status);
template <class Value>
void setAndWait(const std::string& name, AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                Value value, const char* what, double tolerance = 0.0)
{
    const HALStatus status = writeValue(objectID, address, value);
    const auto isTaken = [&] {
        const std::optional<Value> now = readValue<Value>(objectID, address);
        return now && std::fabs(static_cast<double>(*now) - static_cast<double>(value)) <= tolerance;
    };
    if (status != kAudioHardwareNoError || !comesTrue(isTaken))
        failSetting(name, what, status);
}

/// The nominal rate in Hz.
void setSampleRate(const std::string& name, AudioObjectID deviceID, double rate);
/// The frames of a cycle.
void setBufferFrameSize(const std::string& name, AudioObjectID deviceID, uint32_t frameCount);
