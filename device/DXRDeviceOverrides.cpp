#include "DXRDeviceOverrides.h"

#include "CXException.h"
#include "CXJSON.h"
#include "CXMainBundle.h"
#include "CXWeak.h"
#include "DXRDeviceOverridesIndex.h"
#include "DefaultsSuite.h"
#include "Utf8.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

using dxr::DefaultsChanges;
using dxr::DefaultsRow;
using dxr::DefaultsSnapshot;
using dxr::DefaultsSuite;

namespace {

constexpr std::string_view ownerSuffix = "[owner]";

CXRef<DefaultsSuite> suite()
{
    return DefaultsSuite::suiteNamed("com.veltorrin.device-overrides");
}

/// The overrides in a row; empty if the row is null or does not contain a dictionary.
CXPlist overridesIn(const CXRef<DefaultsRow>& row)
{
    std::optional<CXPlist> overrides = row ? CXPlistWithJSON(row->value()) : std::nullopt;
    return overrides && overrides->is_object() ? std::move(*overrides) : CXPlist::object();
}

/// JSON cannot represent other numbers: it would store null.
bool hasFiniteNumbers(const CXPlist& value)
{
    if (value.is_structured())
        return std::ranges::all_of(value, hasFiniteNumbers);
    return !value.is_number_float() || std::isfinite(value.get<double>());
}

/// The key of the entry for the reference, or the key it would get.
std::string keyOfEntry(const DXRDeviceReference& reference, const DefaultsSnapshot& now)
{
    const CXRef<DXRDeviceOverridesEntry> entry =
        DXRDeviceOverridesIndex::initWithSnapshot(DefaultsSnapshot::initWithRows(now.rows()))
            ->entryForReference(reference);
    return entry ? entry->key() : reference.string();
}

/// Otherwise the whole entry would be lost.
bool canBeReadBack(const CXPlist& overrides)
{
    return CXPlistFitsJSON(overrides) && CXJSONWithPlist(overrides).size() <= CXJSONMaximumBytes;
}

/// The changes that write `overrides` under the key; an entry without overrides is removed.
DefaultsChanges changesFor(const std::string& key, const CXPlist& overrides, const DefaultsSnapshot& now)
{
    const CXRef<DefaultsRow> row = now.row(key);
    std::optional<std::string> text;
    if (!overrides.empty())
        text = CXJSONWithPlist(overrides);
    const bool isSame = row ? text == row->value() : !text;
    if (isSame)
        return {};
    return {{key, std::move(text)}};
}

} // namespace

CXRef<DXRDeviceOverrides>
DXRDeviceOverrides::initWithDeviceReference(const CXRef<DXRDeviceReference>& reference)
{
    if (!reference)
        return nullptr;
    auto overrides = CXRef<DXRDeviceOverrides>::adopt(new DXRDeviceOverrides(reference));
    overrides->_find();
    return overrides;
}

DXRDeviceOverrides::DXRDeviceOverrides(const CXRef<DXRDeviceReference>& reference)
    : _mutex(DXRRecursiveMutex::init()), _defaults(suite()), _reference(reference), _key(reference->string())
{}

DXRDeviceOverrides::~DXRDeviceOverrides()
{
    _defaults->removeObserver(_observer);
}

void DXRDeviceOverrides::whenChanged(const CXBlock<void()>& changed)
{
    _mutex->execute([&] { _changed = changed; });
}

/// Finds the key of the entry for the reference, and observes it. Called again if the store could not be read
/// before.
void DXRDeviceOverrides::_find()
{
    const bool isLoaded = _defaults->load(); // reads the disk; everything below is in memory
    const CXRef<DXRDeviceOverridesEntry> entry =
        DXRDeviceOverridesIndex::current(*_defaults)->entryForReference(*_reference);
    const std::string key = entry ? entry->key() : _reference->string();
    const uint64_t observer = _defaults->addObserver(key, [weak = CXWeak<DXRDeviceOverrides>(*this)] {
        if (const CXRef<DXRDeviceOverrides> self = weak.lock())
            self->_storeChanged();
    });
    uint64_t before = 0;
    _mutex->execute([&] {
        _isFound = isLoaded;
        _key = key;
        before = std::exchange(_observer, observer);
    });
    _defaults->removeObserver(before);
}

/// Called before each read, so that what another object of this process has stored is seen at once.
void DXRDeviceOverrides::_observeValue() const
{
    // Take the snapshot under the mutex, so that of two readings the later one is stored last.
    _mutex->execute([&] {
        CXRef<DXRDeviceOverridesEntry> entry =
            DXRDeviceOverridesIndex::current(*_defaults)->entryForKey(_key);
        if (entry == _entry)
            return;
        _overrides = entry ? entry->overrides() : CXPlist::object();
        _entry = std::move(entry);
    });
}

void DXRDeviceOverrides::_storeChanged()
{
    if (!_mutex->execond([&] { return _isFound; }))
        _find();
    CXBlock<void()> changed;
    _mutex->execute([&] { changed = _changed; });
    if (changed)
        changed();
}

std::vector<std::string> DXRDeviceOverrides::keys() const
{
    std::vector<std::string> keys;
    _mutex->execute([&] {
        _observeValue();
        for (const auto& [key, value] : _overrides.items()) {
            if (!key.ends_with(ownerSuffix))
                keys.push_back(key);
        }
    });
    return keys;
}

CXPlist DXRDeviceOverrides::objectForKey(const std::optional<std::string>& key) const
{
    CXPlist value;
    if (key)
        _mutex->execute([&] {
            _observeValue();
            const auto found = _overrides.find(dxr::utf8Replaced(*key));
            if (found != _overrides.end())
                value = *found;
        });
    return value;
}

CXPlist DXRDeviceOverrides::_objectForKey(const std::optional<std::string>& key, Kind kind) const
{
    CXPlist value = objectForKey(key);
    const bool isOfKind = kind == Kind::String ? value.is_string() : value.is_number() || value.is_boolean();
    return isOfKind ? value : CXPlist();
}

CXPlist DXRDeviceOverrides::boolForKey(const std::optional<std::string>& key) const
{
    return _objectForKey(key, Kind::Number);
}

CXPlist DXRDeviceOverrides::doubleForKey(const std::optional<std::string>& key) const
{
    return _objectForKey(key, Kind::Number);
}

CXPlist DXRDeviceOverrides::numberArrayForKey(const std::optional<std::string>& key) const
{
    // Returns a number and never an array, because clients depend on this.
    return _objectForKey(key, Kind::Number);
}

CXPlist DXRDeviceOverrides::numberArrayForKey(const std::optional<std::string>& key, uint32_t) const
{
    if (!numberArrayForKey(key).is_null())
        throw CXException("NSInvalidArgumentException", "numberArrayForKey: a number has no count");
    return nullptr;
}

std::optional<std::string> DXRDeviceOverrides::stringForKey(const std::optional<std::string>& key) const
{
    const CXPlist value = _objectForKey(key, Kind::String);
    return value.is_null() ? std::nullopt : std::optional(value.get<std::string>());
}

bool DXRDeviceOverrides::setObject(const CXPlist& value, const std::optional<std::string>& key)
{
    // Limit one value to half the limit of an entry, to leave room for the other values.
    if (!key || !CXPlistFitsJSON(value) || !hasFiniteNumbers(value) ||
        key->size() + CXJSONWithPlist(value).size() > CXJSONMaximumBytes / 2)
        return false;
    std::optional<std::string> entryKey; // empty: not yet known
    _mutex->execute([&] {
        if (_isFound)
            entryKey = _key;
    });
    // The edit changes the overrides stored at that moment, not the ones known here, so that no override just
    // set by another process is lost.
    const auto fits = std::make_shared<std::atomic<bool>>(true); // the edit may run again later
    const auto edit = [entryKey, reference = _reference, key = dxr::utf8Replaced(*key), value, fits,
                       owner = _ownerBundleID()](const DefaultsSnapshot& now) {
        const std::string found = entryKey ? *entryKey : keyOfEntry(*reference, now);
        CXPlist overrides = overridesIn(now.row(found));
        const std::string ownerKey = _ownerKeyForKey(key);
        overrides.erase(key);
        overrides.erase(ownerKey);
        if (!value.is_null())
            overrides[key] = value;
        if (!value.is_null() && owner)
            overrides[ownerKey] = *owner;
        *fits = canBeReadBack(overrides);
        return *fits ? changesFor(found, overrides, now) : DefaultsChanges();
    };
    _defaults->update(edit);
    if (!entryKey)
        _find();
    _defaults->synchronize();
    return *fits;
}

bool DXRDeviceOverrides::synchronize()
{
    return suite()->synchronize();
}

void DXRDeviceOverrides::performFactoryReset()
{
    const std::optional<std::string> owner = _ownerBundleID();
    if (!owner)
        return;
    const CXRef<DefaultsSuite> defaults = suite();
    defaults->update([owner](const DefaultsSnapshot& now) {
        DefaultsChanges changes;
        for (const auto& [key, row] : now.rows()) {
            if (!isDeviceReference(key))
                continue;
            const CXPlist before = overridesIn(row);
            CXPlist overrides = before;
            for (const auto& [name, value] : before.items()) {
                const std::string ownerKey = _ownerKeyForKey(name);
                const auto found = before.find(ownerKey);
                if (name.ends_with(ownerSuffix) || found == before.end() || *found != *owner)
                    continue;
                overrides.erase(name);
                overrides.erase(ownerKey);
            }
            if (overrides.size() != before.size())
                changes.merge(changesFor(key, overrides, now));
        }
        return changes;
    });
    defaults->synchronize();
}

std::string DXRDeviceOverrides::_ownerKeyForKey(std::string_view key)
{
    return std::string(key) + std::string(ownerSuffix);
}

std::optional<std::string> DXRDeviceOverrides::_ownerBundleID()
{
    const std::optional<std::string> identifier = CXMainBundleIdentifier();
    return identifier ? std::optional(dxr::utf8Replaced(*identifier)) : std::nullopt; // in its stored form
}
