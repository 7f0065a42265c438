#include "DXRDeviceOverridesIndex.h"

#include "CXJSON.h"

#include <mutex>

using dxr::DefaultsRow;
using dxr::DefaultsSnapshot;

CXRef<DXRDeviceOverridesEntry> DXRDeviceOverridesEntry::initWithRow(const std::string& key,
                                                                    const CXRef<DefaultsRow>& row)
{
    CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithString(key);
    if (!reference)
        return nullptr;
    std::optional<CXPlist> overrides = CXPlistWithJSON(row->value());
    if (!overrides || !overrides->is_object())
        return nullptr;
    return CXRef<DXRDeviceOverridesEntry>::adopt(
        new DXRDeviceOverridesEntry(row, std::move(reference), std::move(*overrides)));
}

DXRDeviceOverridesEntry::DXRDeviceOverridesEntry(CXRef<DefaultsRow> row, CXRef<DXRDeviceReference> reference,
                                                 CXPlist overrides)
    : _row(std::move(row)), _reference(std::move(reference)), _overrides(std::move(overrides))
{}

CXRef<DXRDeviceOverridesIndex> DXRDeviceOverridesIndex::current(dxr::DefaultsSuite& suite)
{
    struct Latest {
        std::mutex mutex;
        CXRef<DXRDeviceOverridesIndex> index;
    };
    static auto& latest = *new Latest; // never destroyed: the suite's observers use it until the process ends
    const std::lock_guard lock(latest.mutex);
    CXRef<DefaultsSnapshot> snapshot = suite.snapshot();
    if (!latest.index || latest.index->_snapshot != snapshot)
        latest.index = CXRef<DXRDeviceOverridesIndex>::adopt(
            new DXRDeviceOverridesIndex(std::move(snapshot), latest.index.get()));
    return latest.index;
}

DXRDeviceOverridesIndex::DXRDeviceOverridesIndex(CXRef<DefaultsSnapshot> snapshot,
                                                 const DXRDeviceOverridesIndex* before)
    : _snapshot(std::move(snapshot))
{
    for (const auto& [key, row] : _snapshot->rows()) {
        CXRef<DXRDeviceOverridesEntry> entry = before ? before->entryForKey(key) : nullptr;
        if (!entry || entry->row() != row)
            entry = DXRDeviceOverridesEntry::initWithRow(key, row);
        if (!entry)
            continue;
        _byReference.add(entry->reference(), entry);
        _byKey.emplace(key, std::move(entry));
    }
}

CXRef<DXRDeviceOverridesEntry>
DXRDeviceOverridesIndex::entryForReference(const DXRDeviceReference& reference) const
{
    const CXRef<DXRDeviceOverridesEntry>* found = _byReference.firstEqual(reference);
    if (!found)
        found = _byReference.firstGenericallyEqual(reference);
    return found ? *found : nullptr;
}

CXRef<DXRDeviceOverridesEntry> DXRDeviceOverridesIndex::entryForKey(const std::string& key) const
{
    const auto found = _byKey.find(key);
    return found == _byKey.end() ? nullptr : found->second;
}
