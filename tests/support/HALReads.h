#pragma once

#include "CXValue.h"
#include "HALModel.h"
#include "SimulatedHardware.h"

#include <optional>
#include <string>
#include <vector>

// Reads and writes of properties in tests, and simulated hardware. A read that the HAL fails returns nullopt
// or an empty list.

/// Makes this the process's hardware, and returns it.
template <class Hardware> CXRef<Hardware> installed(CXRef<Hardware> hardware)
{
    HALSetHardwareDriver(hardware);
    return hardware;
}

/// Returns a sink that appends the samples of one channel.
inline SimulatedSink sinkTo(std::vector<float>& played, uint32_t channel = 0)
{
    return [&played, channel](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
        const CXRealtimeExemption exemption("the test keeps what was played");
        for (uint32_t frame = 0; samples && channel < channels && frame < frames; ++frame)
            played.push_back(samples[size_t{frame} * channels + channel]);
    };
}

/// Returns the process's model, which must be the one that uses this hardware.
inline HALModel& modelOf(SimulatedHardware& /*hardware*/)
{
    return *halActiveModel();
}
inline HALModel& modelOf(HALModel& model)
{
    return model;
}

inline AudioObjectPropertyAddress at(uint32_t selector, uint32_t scope = kAudioObjectPropertyScopeGlobal,
                                     uint32_t element = kAudioObjectPropertyElementMain)
{
    return {selector, scope, element};
}

template <class Value>
std::optional<Value> readValue(auto& hal, AudioObjectID object, const AudioObjectPropertyAddress& address)
{
    Value value{};
    uint32_t size = 0;
    if (modelOf(hal).readProperty(object, address, {}, std::as_writable_bytes(std::span(&value, 1)), size) !=
            0 ||
        size != sizeof value)
        return std::nullopt;
    return value;
}

template <class Value>
std::vector<Value> readList(auto& hal, AudioObjectID object, const AudioObjectPropertyAddress& address)
{
    uint32_t size = 0;
    if (modelOf(hal).propertySize(object, address, {}, size) != 0)
        return {};
    std::vector<Value> values(size / sizeof(Value) + 16); // room for objects that are added in between
    if (modelOf(hal).readProperty(object, address, {}, std::as_writable_bytes(std::span(values)), size) != 0)
        return {};
    values.resize(size / sizeof(Value));
    return values;
}

inline std::optional<std::string> readText(auto& hal, AudioObjectID object,
                                           const AudioObjectPropertyAddress& address)
{
    const auto pointer = readValue<CXObject*>(hal, object, address);
    if (!pointer)
        return std::nullopt;
    const auto value = CXRefCast<CXValue>(CXRef<CXObject>::adopt(*pointer));
    return value ? std::optional(value->string()) : std::nullopt;
}

template <class Value>
HALStatus writeValue(auto& hal, AudioObjectID object, const AudioObjectPropertyAddress& address,
                     const Value& value)
{
    return modelOf(hal).writeProperty(object, address, {}, std::as_bytes(std::span(&value, 1)));
}

inline std::vector<AudioObjectID> readDevices(auto& hal)
{
    return readList<AudioObjectID>(hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices));
}

/// Returns the devices that are not hidden: all but the monitors of sinks.
inline std::vector<AudioObjectID> readShownDevices(HALModel& hal)
{
    std::vector<AudioObjectID> devices = readDevices(hal);
    std::erase_if(devices, [&](AudioObjectID device) {
        return readValue<uint32_t>(hal, device, at(kAudioDevicePropertyIsHidden)).value_or(1) != 0;
    });
    return devices;
}

/// Returns the device with this UID; 0 if it does not exist.
inline AudioObjectID deviceWithUID(auto& hal, const std::string& uid)
{
    const CXRef<CXValue> value = CXValue::initWithPlist(uid);
    const CXObject* text = value.get();
    AudioObjectID device = kAudioObjectUnknown;
    AudioValueTranslation translation{&text, sizeof text, &device, sizeof device};
    uint32_t size = 0;
    modelOf(hal).readProperty(kAudioObjectSystemObject, at(kAudioHardwarePropertyDeviceForUID), {},
                              std::as_writable_bytes(std::span(&translation, 1)), size);
    return device;
}
