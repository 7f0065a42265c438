#pragma once

#include "CXPlist.h"
#include "DXRDeviceReference.h"
#include "DXRSynchronization.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform {
class DefaultsSuite;
}

/// A device's remembered settings, the overrides: a small dictionary that every application of the user shares, kept
/// in the suite "com.veltorrin.device-overrides" under the device's reference. Beside each override stands which
/// application set it. An override that another application sets is seen here soon after.
/// Threads:   any.
/// Real time: no. Reading takes a lock for a moment; writing waits for the disk, for some seconds at the most.
/// Fails:     quietly. What cannot be kept on the disk lasts as long as the process, and the log says so once.
class DXR_EXPORT DXRDeviceOverrides final : public CXObject {
public:
    /// The overrides of the device that the reference is equal to, or else generically equal to: the entry that is
    /// there already keeps its place. An empty reference for an empty one.
    static CXRef<DXRDeviceOverrides> initWithDeviceReference(const CXRef<DXRDeviceReference>& reference);

    /// The value; null when there is none.
    CXPlist objectForKey(const std::optional<std::string>& key) const;
    /// The value when it is a number or a boolean, as it is; else null. All three are the same question.
    CXPlist boolForKey(const std::optional<std::string>& key) const;
    CXPlist doubleForKey(const std::optional<std::string>& key) const;
    CXPlist numberArrayForKey(const std::optional<std::string>& key) const; ///< null for an array, too
    /// Null unless the value is a number. A number has no count: for one this throws a CXException.
    CXPlist numberArrayForKey(const std::optional<std::string>& key, uint32_t count) const;
    /// The value when it is a string.
    std::optional<std::string> stringForKey(const std::optional<std::string>& key) const;

    /// Sets the override for all applications, as this application's; null removes it. Returns when it is on the
    /// disk. Does nothing without a key, and for a value that cannot be written and read again (CXJSON.h).
    void setObject(const CXPlist& value, const std::optional<std::string>& key);

    /// Removes every override, of any device, that this application was the last to set. Does nothing for an
    /// application without identifier (CXSetMainBundleIdentifier).
    static void performFactoryReset();

private:
    explicit DXRDeviceOverrides(std::string key);
    ~DXRDeviceOverrides() override;

    enum class Kind { Number, String };
    CXPlist _objectForKey(const std::optional<std::string>& key, Kind kind) const;
    void _observeValue();
    static CXRef<DXRDeviceOverrides> _observing(const std::string& key);
    /// The key of the entry for the reference, which is this one's own when there is none; takes its own entry's content.
    std::string _takeValue(const DXRDeviceReference& reference);

    static std::string _ownerKeyForKey(std::string_view key);
    static std::optional<std::string> _ownerBundleID();

    const CXRef<DXRRecursiveMutex> _mutex;
    const CXRef<platform::DefaultsSuite> _defaults;
    CXPlist _overrides = CXPlist::object(); // guarded by _mutex
    const std::string _key;                 // of the entry
    uint64_t _observer = 0;
};
