#pragma once

#include "DXRDeviceInfo.h"
#include "DXRDeviceReferenceIndex.h"

#include <map>

/// An ordered list of device infos, with look-ups by reference in a time that does not grow with their
/// number.
/// Threads:   the manager's lock guards all fields.
class DXRDeviceInfoList {
public:
    using Infos = std::map<uint64_t, CXRef<DXRDeviceInfo>>;

    /// In the order of the keys.
    const Infos& infos() const noexcept { return _infos; }
    CXRef<DXRDeviceInfo> at(uint64_t key) const;
    /// While an info is in the list, its reference may be changed only by setReference().
    void add(uint64_t key, const CXRef<DXRDeviceInfo>& info);
    /// Returns the removed info; null if the key does not exist.
    CXRef<DXRDeviceInfo> remove(uint64_t key);
    void setReference(DXRDeviceInfo& info, const CXRef<DXRDeviceReference>& reference);

    /// The first added info whose reference is equal; null if there is none.
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
