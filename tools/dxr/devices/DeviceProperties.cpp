#include "DeviceProperties.h"

#include "Text.h"

#include <cstring>
#include <dxr/CXFourCharCode.h>
#include <thread>

const char* nameOf(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? "input" : "output";
}

std::vector<AudioAggregateSubDeviceStatus> subDeviceStatus(AudioObjectID aggregateID)
{
    const auto bytes = DXRPropertyAddress::initWithSelector(kAudioAggregateDevicePropertySubDeviceStatus)
                           ->dataForObjectID(aggregateID);
    std::vector<AudioAggregateSubDeviceStatus> all(
        bytes ? bytes->size() / sizeof(AudioAggregateSubDeviceStatus) : 0);
    if (!all.empty())
        std::memcpy(all.data(), bytes->data(), all.size() * sizeof all[0]);
    return all;
}

std::string textOf(HALStatus status)
{
    constexpr std::pair<HALStatus, const char*> known[] = {
        {kAudioHardwareNotRunningError, "it is not running"},
        {kAudioHardwareUnspecifiedError,
         "the hardware or the sound server failed, or did not respond in time"},
        {kAudioHardwareUnknownPropertyError, "it has no such property"},
        {kAudioHardwareBadPropertySizeError, "the value has the wrong size"},
        {kAudioHardwareIllegalOperationError, "it does not allow that"},
        {kAudioHardwareBadObjectError, "the device is gone"},
        {kAudioHardwareBadDeviceError, "the device is gone"},
    };
    std::string text = "unknown status";
    for (const auto& [code, meaning] : known)
        if (code == status)
            text = meaning;
    return text + " ('" + stringWithFourCharCode(static_cast<uint32_t>(status)) + "')";
}

bool comesTrue(const std::function<bool()>& isDone)
{
    constexpr int tries = 200;
    constexpr std::chrono::milliseconds step{10};
    for (int i = 0; i < tries; ++i) {
        if (isDone())
            return true;
        std::this_thread::sleep_for(step);
    }
    return false;
}

void failSetting(const std::string& name, const std::string& what, HALStatus status)
{
    throw ToolFailure(status == kAudioHardwareNoError
                          ? name + ": did not accept the " + what + " in time"
                          : name + ": the " + what + " cannot be set: " + textOf(status));
}

void setSampleRate(const std::string& name, AudioObjectID deviceID, double rate)
{
    constexpr double tolerance = 1e-3; // Hz
    setAndWait(name, deviceID, DXRPropertyAddress::deviceSampleRate(), rate,
               "sample rate " + formatRate(rate), tolerance);
}
