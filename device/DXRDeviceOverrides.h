#pragma once

#include "CXBlock.h"
#include "CXPlist.h"
#include "DXRDeviceReference.h"
#include "DXRSynchronization.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

class DXRDeviceOverridesEntry;
namespace dxr {
class DefaultsSuite;
}

/// The persistent settings of a device, called overrides: a small dictionary shared by all applications of
/// the user, stored in the suite "com.veltorrin.device-overrides" under the device's reference. Each override
/// is stored with the application that set it. A change by this process is visible at once in all objects of
/// the same entry, a change by another process shortly after.
/// Threads:   any.
/// Real time: no. Reading holds a lock briefly, even while another thread writes. Writing waits for the disk,
///            a few seconds at most.
/// Fails:     a change that cannot be stored is kept in memory for the life of the process; this is logged
///            once.
class DXR_EXPORT DXRDeviceOverrides final : public CXObject {
public:
    /// The overrides of the device whose reference is equal to `reference`, otherwise generically equal: an
    /// existing entry keeps its key. Returns null for a null reference.
    static CXRef<DXRDeviceOverrides> initWithDeviceReference(const CXRef<DXRDeviceReference>& reference);

    /// Calls `changed` after each later change, on the thread that watches the store.
    void whenChanged(const CXBlock<void()>& changed);

    /// The value; null if unset.
    CXPlist objectForKey(const std::optional<std::string>& key) const;
    /// The keys that have values, in ascending order.
    std::vector<std::string> keys() const;
    /// The value if it is a number or a boolean, otherwise null. All three functions return the same.
    CXPlist boolForKey(const std::optional<std::string>& key) const;
    CXPlist doubleForKey(const std::optional<std::string>& key) const;
    CXPlist numberArrayForKey(const std::optional<std::string>& key) const; ///< null for an array, too
    /// Returns null unless the value is a number. For a number it throws a CXException, because a number has
    /// no count.
    CXPlist numberArrayForKey(const std::optional<std::string>& key, uint32_t count) const;
    /// The value if it is a string.
    std::optional<std::string> stringForKey(const std::optional<std::string>& key) const;

    /// Sets the override for all applications, on behalf of this application; null removes it. Returns when
    /// the change is on the disk. Returns false and does nothing without a key, or if the value could not be
    /// read back: nested too deeply, with a number that is not finite, longer than half of
    /// CXJSONMaximumBytes with its key, or longer than these with the device's other overrides.
    bool setObject(const CXPlist& value, const std::optional<std::string>& key);

    /// Reads the settings of all devices again, and tries to store changes that could not be stored. Returns
    /// true if the settings can be read and all changes by this process are on the disk.
    static bool synchronize();
    /// Removes all overrides, of all devices, that were last set by this application. Does nothing if the
    /// application has no identifier (CXSetMainBundleIdentifier).
    static void performFactoryReset();

private:
    explicit DXRDeviceOverrides(const CXRef<DXRDeviceReference>& reference);
    ~DXRDeviceOverrides() override;

    enum class Kind { Number, String };
    CXPlist _objectForKey(const std::optional<std::string>& key, Kind kind) const;
    void _find();
    void _observeValue() const;
    void _storeChanged();

    static std::string _ownerKeyForKey(std::string_view key);
    static std::optional<std::string> _ownerBundleID();

    const CXRef<DXRRecursiveMutex> _mutex; // never held during disk access
    const CXRef<dxr::DefaultsSuite> _defaults;
    const CXRef<DXRDeviceReference> _reference;
    // Under _mutex:
    CXBlock<void()> _changed;
    mutable CXRef<DXRDeviceOverridesEntry> _entry; // as last seen; null if there is none
    mutable CXPlist _overrides = CXPlist::object();
    std::string _key;      // the entry's key
    bool _isFound = false; // whether the store could be read when the entry was looked up
    uint64_t _observer = 0;
};
