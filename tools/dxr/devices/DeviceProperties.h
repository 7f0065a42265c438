#pragma once

#include <cmath>
#include <dxr/DXRPropertyAddress.h>
#include <dxr/HALDirection.h>
#include <functional>

// Properties of devices, beyond what DXRPropertyAddress reads. Any thread.

/// kAudioObjectPropertyScopeInput or …Output.
constexpr uint32_t scopeOf(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? kAudioObjectPropertyScopeInput
                                            : kAudioObjectPropertyScopeOutput;
}
/// "input" or "output".
const char* nameOf(HALDirection direction) noexcept;

/// The parts of an aggregate, in its order; none when they cannot be read.
std::vector<AudioAggregateSubDeviceStatus> subDeviceStatus(AudioObjectID aggregateID);

/// A status as text for the user: "the device is gone ('!dev')".
std::string textOf(HALStatus status);

// Writes, each of which waits until the hardware has taken the value, for two seconds at most. `name` is the
// device's, printable. They throw ToolFailure when the hardware refuses, or does not take the value in time.

/// Whether `isDone` returns true within two seconds.
bool comesTrue(const std::function<bool()>& isDone);
[[noreturn]] void failSetting(const std::string& name, const std::string& what, HALStatus status);

/// `what` names the value in the message. It is taken when it reads the same within `tolerance`.
template <class Value>
void setAndWait(const std::string& name, AudioObjectID objectID, const DXRPropertyAddress::Ref& property,
                Value value, const std::string& what, double tolerance = 0.0)
{
    const AudioObjectPropertyAddress* const address = property->address();
    const HALStatus status = AudioObjectSetPropertyData(objectID, address, 0, nullptr, sizeof value, &value);
    const auto isTaken = [&] {
        Value now{};
        uint32_t size = sizeof now;
        return AudioObjectGetPropertyData(objectID, address, 0, nullptr, &size, &now) ==
                   kAudioHardwareNoError &&
               std::fabs(static_cast<double>(now) - static_cast<double>(value)) <= tolerance;
    };
    if (status != kAudioHardwareNoError || !comesTrue(isTaken))
        failSetting(name, what, status);
}
/// The nominal rate, Hz.
void setSampleRate(const std::string& name, AudioObjectID deviceID, double rate);
