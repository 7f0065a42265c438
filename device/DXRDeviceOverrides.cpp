#include "DXRDeviceOverrides.h"

#include "CXException.h"
#include "CXJSON.h"
#include "CXMainBundle.h"
#include "CXWeak.h"
#include "DXRDeviceOverridesIndex.h"
#include "DefaultsSuite.h"

#include <utility>
#include <vector>

using platform::DefaultsChanges;
using platform::DefaultsRow;
using platform::DefaultsSnapshot;
using platform::DefaultsSuite;

namespace {

constexpr std::string_view ownerSuffix = "[owner]";

CXRef<DefaultsSuite> suite()
{
    return DefaultsSuite::suiteNamed("com.veltorrin.device-overrides");
}

/// The overrides in a row; none when there is no row, or something else in it.
CXPlist overridesIn(const CXRef<DefaultsRow>& row)
{
    std::optional<CXPlist> overrides = row ? CXPlistWithJSON(row->value()) : std::nullopt;
    return overrides && overrides->is_object() ? std::move(*overrides) : CXPlist::object();
}

/// What writes `overrides` under the key: an entry without any is removed.
DefaultsChanges changesFor(const std::string& key, const CXPlist& overrides, const DefaultsSnapshot& now)
{
    const CXRef<DefaultsRow> row = now.row(key);
    std::optional<std::string> text;
    if (!overrides.empty())
        text = CXJSONWithPlist(overrides);
    const bool isSame = row ? text == row->value() : !text;
    return isSame ? DefaultsChanges() : DefaultsChanges{{key, std::move(text)}};
}

} // namespace

CXRef<DXRDeviceOverrides>
DXRDeviceOverrides::initWithDeviceReference(const CXRef<DXRDeviceReference>& reference)
{
    if (!reference)
        return nullptr;
    CXRef<DXRDeviceOverrides> overrides = _observing(reference->string());
    const std::string key = overrides->_takeValue(*reference);
    if (key == overrides->_key)
        return overrides;
    overrides = _observing(key); // an entry that was there already, under another text
    overrides->_observeValue();
    return overrides;
}

CXRef<DXRDeviceOverrides> DXRDeviceOverrides::_observing(const std::string& key)
{
    auto overrides = CXRef<DXRDeviceOverrides>::adopt(new DXRDeviceOverrides(key));
    overrides->_observer =
        overrides->_defaults->addObserver(key, [weak = CXWeak<DXRDeviceOverrides>(overrides)] {
            if (const CXRef<DXRDeviceOverrides> self = weak.lock())
                self->_observeValue();
        });
    return overrides;
}

DXRDeviceOverrides::DXRDeviceOverrides(std::string key)
    : _mutex(DXRRecursiveMutex::init()), _defaults(suite()), _key(std::move(key))
{}

std::string DXRDeviceOverrides::_takeValue(const DXRDeviceReference& reference)
{
    std::string key = _key;
    _mutex->execute([&] { // read and kept in one step, as in _observeValue(): the later reading stays
        const auto index = DXRDeviceOverridesIndex::current(*_defaults);
        const CXRef<DXRDeviceOverridesEntry> entry = index->entryForReference(reference);
        if (!entry)
            return;
        key = entry->key();
        if (key == _key)
            _overrides = entry->overrides();
    });
    return key;
}

DXRDeviceOverrides::~DXRDeviceOverrides()
{
    _defaults->removeObserver(_observer);
}

void DXRDeviceOverrides::_observeValue()
{
    // The suite is asked under the mutex: a value set meanwhile must not be replaced by the one before it.
    _mutex->execute([&] {
        const CXRef<DXRDeviceOverridesEntry> entry =
            DXRDeviceOverridesIndex::current(*_defaults)->entryForKey(_key);
        _overrides = entry ? entry->overrides() : CXPlist::object();
    });
}

CXPlist DXRDeviceOverrides::objectForKey(const std::optional<std::string>& key) const
{
    CXPlist value;
    if (key)
        _mutex->execute([&] {
            if (const auto found = _overrides.find(*key); found != _overrides.end())
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
    // A number, and never an array: clients have come to rely on it.
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

void DXRDeviceOverrides::setObject(const CXPlist& value, const std::optional<std::string>& key)
{
    // Half the limits for one value leaves room for what else is in the entry.
    if (!key || !CXPlistFitsJSON(value) ||
        key->size() + CXJSONWithPlist(value).size() > CXJSONMaximumBytes / 2)
        return;
    // The edit works on what is stored at that moment, and not on what is known here, so that no override which
    // another process has just set is lost.
    const auto edit = [entryKey = _key, key = *key, value,
                       owner = _ownerBundleID()](const DefaultsSnapshot& now) {
        CXPlist overrides = overridesIn(now.row(entryKey));
        const std::string ownerKey = _ownerKeyForKey(key);
        overrides.erase(key);
        overrides.erase(ownerKey);
        if (!value.is_null())
            overrides[key] = value;
        if (!value.is_null() && owner)
            overrides[ownerKey] = *owner;
        return changesFor(entryKey, overrides, now);
    };
    _mutex->execute([&] {
        _defaults->update(edit);
        _observeValue();
    });
    _defaults->synchronize();
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
    return CXMainBundleIdentifier();
}
