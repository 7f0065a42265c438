#include "DXRDisplayNames.h"

#include "DXRDeviceControl.h"

#include <unordered_map>

namespace {

using Devices = DXRDisplayNames::Devices;

/// `name` returns a device's plain name; `update` sets the name to show, or the plain one for nullopt, and
/// returns whether that is a change.
template <class Name, class Update>
void numberIn(bool isInput, const DXRDeviceInfoList& connected, const Name& name, const Update& update)
{
    std::unordered_map<std::string, std::vector<CXRef<DXRDevice>>> groups; // each in order of device ID
    for (const auto& [deviceID, info] : connected.infos()) {
        if (info->stashed(isInput))
            update(info->stashed(isInput), std::nullopt);
        if (const CXRef<DXRDevice>& device = info->live(isInput))
            groups[name(*device)].push_back(device);
    }
    const auto isPlainName = [&](const std::string& shown) {
        const auto found = groups.find(shown);
        return found != groups.end() && found->second.size() == 1;
    };
    for (const auto& [shared, devices] : groups) {
        if (devices.size() == 1) {
            update(devices.front(), std::nullopt);
            continue;
        }
        size_t number = 0;
        for (const CXRef<DXRDevice>& device : devices) {
            std::string shown;
            do
                shown = shared + " " + std::to_string(++number);
            while (isPlainName(shown));
            update(device, shown);
        }
    }
}

} // namespace

void DXRDisplayNames::number(const DXRDeviceInfoList& connected, Devices& changed)
{
    using Shown = std::optional<std::string>;
    for (const bool isInput : {true, false}) {
        numberIn(
            isInput, connected, [](const DXRDevice& device) { return device.name(); },
            [&](const CXRef<DXRDevice>& device, const Shown& shown) {
                if (DXRDeviceControl(*device).updateDisplayName(shown))
                    changed.insert(device);
            });
        numberIn(
            isInput, connected, [](const DXRDevice& device) { return device.nameWithSource(); },
            [&](const CXRef<DXRDevice>& device, const Shown& shown) {
                if (DXRDeviceControl(*device).updateDisplayNameWithSource(shown))
                    changed.insert(device);
            });
    }
}

void DXRDisplayNames::reset(DXRDeviceInfo& info, Devices& changed)
{
    for (const CXRef<DXRDevice>& device : {info.input, info._input, info.output, info._output}) {
        if (!device)
            continue;
        const DXRDeviceControl control(*device);
        const bool isNew = control.updateDisplayName(std::nullopt);
        if (control.updateDisplayNameWithSource(std::nullopt) || isNew)
            changed.insert(device);
    }
}
