#include "DeviceProperties.h"

#include <dxr/CXFourCharCode.h>
#include <dxr/CXValue.h>

const char* nameOf(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? "input" : "output";
}

AudioObjectPropertyAddress addressOf(uint32_t selector) noexcept
{
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

AudioObjectPropertyAddress addressOf(uint32_t selector, HALDirection direction, uint32_t element) noexcept
{
    return {selector, scopeOf(direction), element};
}

std::optional<std::vector<std::byte>> readBytes(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address)
{
    constexpr int tries = 8;
    for (int i = 0; i < tries; ++i) {
        uint32_t size = 0;
        if (AudioObjectGetPropertyDataSize(objectID, &address, 0, nullptr, &size) != kAudioHardwareNoError)
            return std::nullopt;
        std::vector<std::byte> bytes(size);
        const HALStatus status =
            AudioObjectGetPropertyData(objectID, &address, 0, nullptr, &size, bytes.data());
        if (status == kAudioHardwareNoError) {
            bytes.resize(size);
            return bytes;
        }
        if (status != kAudioHardwareBadPropertySizeError)
            return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> readString(AudioObjectID objectID, const AudioObjectPropertyAddress& address)
{
    CXObject* object = readValue<CXObject*>(objectID, address).value_or(nullptr);
    const CXRef<CXValue> value = CXRefCast<CXValue>(CXRef<CXObject>::adopt(object));
    return value ? std::optional(value->string()) : std::nullopt;
}

bool isThere(AudioObjectID deviceID)
{
    uint32_t size = 0;
    const AudioObjectPropertyAddress address = addressOf(kAudioDevicePropertyDeviceUID);
    return AudioObjectGetPropertyDataSize(deviceID, &address, 0, nullptr, &size) == kAudioHardwareNoError;
}

std::string textOf(HALStatus status)
{
    const auto explained = [status] {
        switch (status) {
        case kAudioHardwareNotRunningError:
            return "it is not running";
        case kAudioHardwareUnspecifiedError:
            return "the hardware or the sound server failed, or did not answer in time";
        case kAudioHardwareUnknownPropertyError:
            return "it has no such property";
        case kAudioHardwareBadPropertySizeError:
            return "the value has the wrong size";
        case kAudioHardwareIllegalOperationError:
            return "it does not allow that";
        case kAudioHardwareBadObjectError:
        case kAudioHardwareBadDeviceError:
            return "the device is gone";
        default:
            return "unknown status";
        }
    };
    return std::string(explained()) + " ('" + stringWithFourCharCode(static_cast<uint32_t>(status)) + "')";
}
