#pragma once

#include "DXRDeviceInfo.h"
#include "DXRDeviceReferenceIndex.h"

#include <map>

/// Device infos in an order, found by their references at a cost that does not grow with their number.
/// Threads:   the manager's lock guards all of it.
class DXRDeviceInfoList {
public:
    using Infos = std::map<uint64_t, CXRef<DXRDeviceInfo>>;

    /// In the order of the keys.
    const Infos& infos() const noexcept { return _infos; }
    CXRef<DXRDeviceInfo> at(uint64_t key) const;
    /// Its reference does not change while it is here, but through setReference().
    void add(uint64_t key, const CXRef<DXRDeviceInfo>& info);
    /// Null when there is none.
    CXRef<DXRDeviceInfo> remove(uint64_t key);
    void setReference(DXRDeviceInfo& info, const CXRef<DXRDeviceReference>& reference);

    /// The first that was added whose reference is equal; null when there is none.
    CXRef<DXRDeviceInfo> firstEqual(const DXRDeviceReference& reference) const;
    CXRef<DXRDeviceInfo> firstGenericallyEqual(const DXRDeviceReference& reference) const;
    std::vector<CXRef<DXRDeviceInfo>> allGenericallyEqual(const DXRDeviceReference& reference) const
    {
        return _index.allGenericallyEqual(reference);
    }

private:
    Infos _infos;
    DXRDeviceReferenceIndex<CXRef<DXRDeviceInfo>> _index;
};
