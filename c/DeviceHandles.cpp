#include "DeviceHandles.h"

#include "Packer.h"

#include <algorithm>
#include <tuple>

namespace dxr_c {

CXRef<DXRDevice> deviceOf(const dxr_device* handle)
{
    return Handles::shared().object<DXRDevice>(handle, Kind::Device);
}

dxr_device* give(const CXRef<DXRDevice>& device, const char* otherwise)
{
    if (!device)
        fail(DXR_ERROR_NOT_FOUND, otherwise);
    return Handles::shared().give<dxr_device>(Kind::Device, device);
}

void giveList(const std::set<CXRef<DXRDevice>>& set, dxr_device* const** devices, size_t* count)
{
    std::vector<std::tuple<std::string, bool, std::string, CXRef<DXRDevice>>> sorted;
    sorted.reserve(set.size());
    for (const CXRef<DXRDevice>& device : set)
        sorted.emplace_back(device->displayName(), device->isInput(), device->deviceUID(), device);
    std::ranges::sort(sorted, {}, [](const auto& each) {
        return std::tie(std::get<0>(each), std::get<1>(each), std::get<2>(each));
    });
    auto* const list = newMemory<dxr_device*>(sorted.size() * sizeof(dxr_device*), sorted.size());
    for (size_t i = 0; i < sorted.size(); ++i)
        list[i] = give(std::get<3>(sorted[i]), "");
    *devices = list;
    *count = sorted.size();
}

} // namespace dxr_c
