#include "DXRDeviceValues.h"

#include "DXRDeviceArchive.h"
#include "DXRDeviceHardware.h"

DXRDeviceValues DXRDeviceValues::ofHardware(const DXRDeviceHardware& hardware, uint32_t channelCount)
{
    DXRDeviceValues values;
    values.channelCount = channelCount;
    values.manufacturer = hardware.manufacturer();
    values.model = hardware.model();
    values.name = hardware.name();
    const std::optional<bool> muted = hardware.isMuted();
    values.hasMute = muted.has_value();
    values.isMuted = muted.value_or(false);
    values.preferredStereoChannels = hardware.preferredStereoChannels(channelCount);
    values.sampleRate = hardware.sampleRate();
    values.availableSampleRates = hardware.availableSampleRates(values.sampleRate);
    values.source = hardware.source();
    for (const auto& [name, sourceID] : hardware.sources())
        values.availableSources.push_back(name);
    values.availableSources = sortedCaseInsensitively(std::move(values.availableSources));
    values.transportType = hardware.transportType();
    const std::optional<double> volume = hardware.volume(values.preferredStereoChannels);
    values.hasVolume = volume.has_value();
    values.volume = volume.value_or(1.0);
    return values;
}

DXRDeviceValues DXRDeviceValues::ofArchive(const CXPlist& dictionary)
{
    const DXRDeviceArchive archive(dictionary);
    DXRDeviceValues values;
    values.channelCount = archive.channelCount("c");
    values.name = archive.string("n");
    values.manufacturer = archive.string("m");
    values.model = archive.string("md");
    values.transportType = archive.string("t");
    values.source = archive.string("s");
    values.preferredStereoChannels = archive.channels("sc", values.channelCount);
    if (values.preferredStereoChannels.size() != 2)
        values.preferredStereoChannels = {1, values.channelCount < 2 ? 1U : 2U};
    values.availableSampleRates = archive.rates("ar");
    values.sampleRate = archive.rate("r").value_or(values.sampleRate);
    values.availableSources = archive.strings("as");
    values.hasMute = archive.flag("hm");
    values.isMuted = archive.flag("mt");
    values.hasVolume = archive.flag("hv");
    values.volume = archive.scalar("v").value_or(values.volume);
    return values;
}

void DXRDeviceValues::addTo(CXPlist& archive) const
{
    archive.update({{"c", channelCount},
                    {"n", name},
                    {"m", manufacturer},
                    {"md", model},
                    {"t", transportType},
                    {"s", source},
                    {"sc", preferredStereoChannels},
                    {"ar", availableSampleRates},
                    {"r", sampleRate},
                    {"as", availableSources},
                    {"hm", hasMute},
                    {"mt", isMuted},
                    {"hv", hasVolume},
                    {"v", volume}});
}
