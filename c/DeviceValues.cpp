#include "DeviceValues.h"

#include <algorithm>

namespace dxr_c {

DeviceValues::DeviceValues(const DXRDevice& device)
{
    const CXRef<DXRDeviceReference> named = device.reference();
    _texts = {device.deviceUID(),     named ? named->string() : "",
              device.name(),          device.displayName(),
              device.manufacturer(),  device.model(),
              device.transportType(), device.source()};
    _sampleRates = device.availableSampleRates();
    _sources = device.availableSources();
    _info.direction = device.isInput() ? DXR_INPUT : DXR_OUTPUT;
    _info.is_connected = device.isConnected();
    _info.is_default = device.isDefault();
    _info.has_volume = device.hasVolume();
    _info.has_mute = device.hasMute();
    _info.is_muted = device.isMuted();
    _info.channels = device.channelCount();
    const std::vector<uint32_t> stereo = device.preferredStereoChannels();
    std::copy_n(stereo.begin(), std::min<size_t>(stereo.size(), 2), _info.stereo_channels);
    _info.sample_rate = device.sampleRate();
    _info.volume = device.volume();
}

dxr_device_info DeviceValues::packedBy(Packer& packer) const
{
    dxr_device_info packed = _info;
    packed.size = sizeof packed;
    const char** const places[] = {&packed.uid,          &packed.reference,    &packed.name,
                                   &packed.display_name, &packed.manufacturer, &packed.model,
                                   &packed.transport,    &packed.source};
    for (size_t i = 0; i < std::size(places); ++i)
        *places[i] = packer.text(_texts[i]);
    packed.sample_rates = packer.numbers(_sampleRates);
    packed.sample_rate_count = _sampleRates.size();
    packed.sources = packer.texts(_sources);
    packed.source_count = _sources.size();
    return packed;
}

} // namespace dxr_c
