// The functions of devices and of their changes.

#include "Arguments.h"
#include "CXJSON.h"
#include "DXRDeviceManager.h"
#include "DeviceHandles.h"
#include "DeviceValues.h"
#include "Follower.h"
#include "Guard.h"
#include "QDL.h"

using namespace dxr_c;

namespace {

/// Writes a value of a device; fails if the device is not connected.
void write(const dxr_device* handle, const char* what, const CXBlock<bool(DXRDevice&)>& write)
{
    const CXRef<DXRDevice> device = deviceOf(handle);
    if (!device->isConnected())
        fail(DXR_ERROR_STATE, "the device is not connected");
    if (!write(*device))
        fail(DXR_ERROR_REFUSED, std::string("the device does not take this ") + what);
}

} // namespace

extern "C" {

dxr_status dxr_devices(dxr_device* const** devices, size_t* count)
{
    return guarded(__func__, [&] {
        require(devices, "devices");
        require(count, "count");
        giveList(DXRDeviceManager::sharedDeviceManager().connectedDevices(), devices, count);
    });
}

dxr_status dxr_default_device(dxr_direction direction, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const bool input = isInput(direction);
        const DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
        *device = give(input ? manager.defaultInputDevice() : manager.defaultOutputDevice(),
                       input ? "there is no default input" : "there is no default output");
    });
}

dxr_status dxr_device_with_uid(const char* uid, dxr_direction direction, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const std::string text = textOf(uid, "uid");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(text, isInput(direction)),
                       "no device has this UID");
    });
}

dxr_status dxr_device_with_reference(const char* reference, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const std::string text = textOf(reference, "reference");
        if (!DXRDeviceReference::initWithString(text))
            fail(DXR_ERROR_TEXT, "the text is not a reference");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceWithReference(text),
                       "no device has this reference");
    });
}

dxr_status dxr_device_from_archive(const void* archive, size_t size, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        require(archive, "archive");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceFromArchive(
                           std::span(static_cast<const std::byte*>(archive), size)),
                       "these bytes are not an archived device");
    });
}

dxr_status dxr_device_archive(dxr_device* device, const void** archive, size_t* size)
{
    return guarded(__func__, [&] {
        require(archive, "archive");
        require(size, "size");
        const auto bytes = DXRDeviceManager::archiveForDevice(deviceOf(device));
        auto* const memory = newMemory<std::byte>(bytes->size());
        std::ranges::copy(*bytes, memory);
        *archive = memory;
        *size = bytes->size();
    });
}

dxr_status dxr_device_counterpart(dxr_device* device, dxr_device** counterpart)
{
    return guarded(__func__, [&] {
        require(counterpart, "counterpart");
        *counterpart = give(DXRDeviceManager::sharedDeviceManager().counterpartForDevice(deviceOf(device)),
                            "the device has one direction");
    });
}

dxr_status dxr_device_get_info(dxr_device* device, const dxr_device_info** info)
{
    return guarded(__func__, [&] {
        require(info, "info");
        const DeviceValues values(*deviceOf(device));
        *info = Packer::pack<dxr_device_info>([&](Packer& packer) { return values.packedBy(packer); });
    });
}

dxr_status dxr_device_set_volume(dxr_device* device, double volume)
{
    return guarded(__func__, [&] {
        requireFraction(volume, "the volume");
        write(device, "volume", [&](DXRDevice& each) { return each.setVolume(volume); });
    });
}

dxr_status dxr_device_set_muted(dxr_device* device, int is_muted)
{
    return guarded(__func__, [&] {
        write(device, "mute", [&](DXRDevice& each) { return each.setMuted(is_muted != 0); });
    });
}

dxr_status dxr_device_set_source(dxr_device* device, const char* source)
{
    return guarded(__func__, [&] {
        const std::string text = textOf(source, "source");
        write(device, "source", [&](DXRDevice& each) { return each.setSource(text); });
    });
}

dxr_status dxr_device_set_sample_rate(dxr_device* device, double sample_rate)
{
    return guarded(__func__, [&] {
        requireSampleRate(sample_rate);
        write(device, "sample rate", [&](DXRDevice& each) { return each.setSampleRate(sample_rate); });
    });
}

dxr_status dxr_device_make_default(dxr_device* device)
{
    return guarded(__func__, [&] {
        write(device, "role", [](DXRDevice& each) {
            const AudioObjectID id = each.deviceID();
            const AudioObjectPropertyAddress address{
                each.isInput() ? kAudioHardwarePropertyDefaultInputDevice
                               : kAudioHardwarePropertyDefaultOutputDevice,
                kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
            return AudioObjectSetPropertyData(kAudioObjectSystemObject, &address, 0, nullptr, sizeof id,
                                              &id) == kAudioHardwareNoError;
        });
    });
}

dxr_status dxr_device_get_setting(dxr_device* device, const char* key, const char** json)
{
    return guarded(__func__, [&] {
        require(json, "json");
        *json = newText(CXJSONWithPlist(deviceOf(device)->overrideForKey(textOf(key, "key"))));
    });
}

dxr_status dxr_device_set_setting(dxr_device* device, const char* key, const char* json)
{
    return guarded(__func__, [&] {
        constexpr const char* tooLong = "the value is too long to be stored";
        const std::string text = textOf(json, "json");
        if (text.size() > CXJSONMaximumBytes) // is not parsed
            fail(DXR_ERROR_ARGUMENT, tooLong);
        const std::optional<CXPlist> value = CXPlistWithJSON(text);
        if (!value)
            fail(DXR_ERROR_TEXT, "the value is not JSON");
        if (!deviceOf(device)->setOverride(*value, textOf(key, "key")))
            fail(DXR_ERROR_ARGUMENT, tooLong);
    });
}

dxr_status dxr_device_setting_keys(dxr_device* device, const char** json)
{
    return guarded(__func__, [&] {
        require(json, "json");
        *json = newText(CXJSONWithPlist(CXPlist(deviceOf(device)->overrideKeys())));
    });
}

dxr_status dxr_follow(dxr_device_callback callback, void* user, dxr_follower** follower)
{
    return guarded(__func__, [&] {
        require(callback, "callback");
        require(follower, "follower");
        *follower = Handles::shared().give<dxr_follower>(
            Kind::Follower, CXRef<Follower>::adopt(new Follower(callback, user)));
    });
}

} // extern "C"
