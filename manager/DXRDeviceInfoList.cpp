#include "DXRDeviceInfoList.h"

CXRef<DXRDeviceInfo> DXRDeviceInfoList::at(uint64_t key) const
{
    const auto found = _infos.find(key);
    return found == _infos.end() ? nullptr : found->second;
}

void DXRDeviceInfoList::add(uint64_t key, const CXRef<DXRDeviceInfo>& info)
{
    _infos.emplace(key, info);
    _index.add(info->reference, info);
}

CXRef<DXRDeviceInfo> DXRDeviceInfoList::remove(uint64_t key)
{
    const auto found = _infos.find(key);
    if (found == _infos.end())
        return nullptr;
    CXRef<DXRDeviceInfo> info = std::move(found->second);
    _infos.erase(found);
    _index.remove(info->reference, info);
    return info;
}

void DXRDeviceInfoList::setReference(DXRDeviceInfo& info, const CXRef<DXRDeviceReference>& reference)
{
    const CXRef<DXRDeviceInfo> self(&info);
    _index.remove(info.reference, self);
    info.reference = reference;
    _index.add(reference, self);
}

CXRef<DXRDeviceInfo> DXRDeviceInfoList::firstEqual(const DXRDeviceReference& reference) const
{
    const CXRef<DXRDeviceInfo>* found = _index.firstEqual(reference);
    return found ? *found : nullptr;
}

CXRef<DXRDeviceInfo> DXRDeviceInfoList::firstGenericallyEqual(const DXRDeviceReference& reference) const
{
    const CXRef<DXRDeviceInfo>* found = _index.firstGenericallyEqual(reference);
    return found ? *found : nullptr;
}
