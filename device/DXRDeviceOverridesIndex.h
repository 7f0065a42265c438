#pragma once

#include "CXPlist.h"
#include "DXRDeviceReferenceIndex.h"
#include "DefaultsSuite.h"

#include <string>
#include <unordered_map>

/// One device's entry in the suite of overrides, parsed.
/// Threads:   immutable; any.
class DXRDeviceOverridesEntry final : public CXObject {
public:
    /// Returns null if the key is not a reference or the value not a dictionary: such entries are ignored.
    static CXRef<DXRDeviceOverridesEntry> initWithRow(const std::string& key,
                                                      const CXRef<dxr::DefaultsRow>& row);

    const std::string& key() const noexcept { return _reference->string(); }
    const CXRef<DXRDeviceReference>& reference() const noexcept { return _reference; }
    const CXPlist& overrides() const noexcept { return _overrides; }
    const CXRef<dxr::DefaultsRow>& row() const noexcept { return _row; }

private:
    DXRDeviceOverridesEntry(CXRef<dxr::DefaultsRow> row, CXRef<DXRDeviceReference> reference,
                            CXPlist overrides);
    ~DXRDeviceOverridesEntry() override = default;

    const CXRef<dxr::DefaultsRow> _row;
    const CXRef<DXRDeviceReference> _reference;
    const CXPlist _overrides;
};

/// All entries of the suite at one time, indexed by reference. Each entry is parsed once per process,
/// regardless of the number of devices that look up theirs.
/// Threads:   immutable; any.
class DXRDeviceOverridesIndex final : public CXObject {
public:
    static CXRef<DXRDeviceOverridesIndex> initWithSnapshot(CXRef<dxr::DefaultsSnapshot> snapshot)
    {
        return CXRef<DXRDeviceOverridesIndex>::adopt(
            new DXRDeviceOverridesIndex(std::move(snapshot), nullptr));
    }
    /// The content of `suite` now, as far as it is loaded.
    static CXRef<DXRDeviceOverridesIndex> current(dxr::DefaultsSuite& suite);

    /// The first entry whose reference is equal, otherwise generically equal; null if there is none.
    CXRef<DXRDeviceOverridesEntry> entryForReference(const DXRDeviceReference& reference) const;
    /// Null if there is none.
    CXRef<DXRDeviceOverridesEntry> entryForKey(const std::string& key) const;

private:
    DXRDeviceOverridesIndex(CXRef<dxr::DefaultsSnapshot> snapshot, const DXRDeviceOverridesIndex* before);
    ~DXRDeviceOverridesIndex() override = default;

    const CXRef<dxr::DefaultsSnapshot> _snapshot;
    std::unordered_map<std::string, CXRef<DXRDeviceOverridesEntry>> _byKey;
    DXRDeviceReferenceIndex<CXRef<DXRDeviceOverridesEntry>> _byReference;
};
