#pragma once

#include <cmath>
#include <dxr/DXRPropertyAddress.h>
#include <dxr/HALDirection.h>
#include <functional>

// Properties of devices that DXRPropertyAddress does not read. Threads: any.

constexpr uint32_t scopeOf(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? kAudioObjectPropertyScopeInput
                                            : kAudioObjectPropertyScopeOutput;
}
const char* nameOf(HALDirection direction) noexcept;

/// The status of an aggregate's sub-devices, in the aggregate's order; empty if it cannot be read.
std::vector<AudioAggregateSubDeviceStatus> subDeviceStatus(AudioObjectID aggregateID);

/// A status as text for the user: "the device is gone ('!dev')".
std::string textOf(HALStatus status);

// The following functions set a value and wait, for at most two seconds, until the hardware has accepted it.
// `name` is the device's printable name. They throw ToolFailure if the hardware does not accept the value.

/// Polls `isDone` for up to two seconds. Returns whether it returned true.
bool comesTrue(const std::function<bool()>& isDone);
[[noreturn]] void failSetting(const std::string& name, const std::string& what, HALStatus status);

/// `what` names the value in the error message. It is accepted once it reads the same within `tolerance`.
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
void setSampleRate(const std::string& name, AudioObjectID deviceID, double rate);
