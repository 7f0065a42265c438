#pragma once

#include "CXBlock.h"
#include "CXPlist.h"
#include "DXRDeviceReference.h"
#include "DXRSynchronization.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dxr {
class DefaultsSuite;
}

/// A device's remembered settings, the overrides: a small dictionary that every application of the user
/// shares, kept in the suite "com.veltorrin.device-overrides" under the device's reference. Beside each
/// override stands which application set it. An override that another application sets is seen here soon
/// after.
/// Threads:   any.
/// Real time: no. Reading takes a lock for a moment, also while another thread writes; writing waits for the
///            disk, for a few seconds at most.
/// Fails:     by keeping what cannot be stored in memory, for the life of the process; logged once.
class DXR_EXPORT DXRDeviceOverrides final : public CXObject {
public:
    /// The overrides of the device that the reference is equal to, or else generically equal to: the entry
    /// that is there already keeps its place. An empty reference for an empty one. `changed` is called after
    /// a change by anyone, on the thread that watches the store.
    static CXRef<DXRDeviceOverrides> initWithDeviceReference(const CXRef<DXRDeviceReference>& reference,
                                                             const CXBlock<void()>& changed = {});

    /// The value; null when there is none.
    CXPlist objectForKey(const std::optional<std::string>& key) const;
    /// The keys that have values, in their order.
    std::vector<std::string> keys() const;
    /// The value when it is a number or a boolean, else null. All three are the same.
    CXPlist boolForKey(const std::optional<std::string>& key) const;
    CXPlist doubleForKey(const std::optional<std::string>& key) const;
    CXPlist numberArrayForKey(const std::optional<std::string>& key) const; ///< null for an array, too
    /// Null unless the value is a number. A number has no count: for one this throws a CXException.
    CXPlist numberArrayForKey(const std::optional<std::string>& key, uint32_t count) const;
    /// The value when it is a string.
    std::optional<std::string> stringForKey(const std::optional<std::string>& key) const;

    /// Sets the override for all applications, as this application's; null removes it. Returns when it is on
    /// the disk. Does nothing without a key, and for a value that could not be read back: too deep, too long
    /// (CXJSON.h), or with a number that is not finite.
    void setObject(const CXPlist& value, const std::optional<std::string>& key);

    /// Removes every override, of any device, that this application was the last to set. Does nothing for an
    /// application without identifier (CXSetMainBundleIdentifier).
    static void performFactoryReset();

private:
    DXRDeviceOverrides(const CXRef<DXRDeviceReference>& reference, const CXBlock<void()>& changed);
    ~DXRDeviceOverrides() override;

    enum class Kind { Number, String };
    CXPlist _objectForKey(const std::optional<std::string>& key, Kind kind) const;
    void _find();
    void _observeValue();
    void _storeChanged();

    static std::string _ownerKeyForKey(std::string_view key);
    static std::optional<std::string> _ownerBundleID();

    const CXRef<DXRRecursiveMutex> _mutex; // never held over work on the disk
    const CXRef<dxr::DefaultsSuite> _defaults;
    const CXRef<DXRDeviceReference> _reference;
    const CXBlock<void()> _changed;
    // Under _mutex:
    CXPlist _overrides = CXPlist::object();
    std::string _key;      // of the entry
    bool _isFound = false; // the store could be read when the entry was looked for
    uint64_t _observer = 0;
};
