#pragma once

#include "CXPlist.h"
#include "CXRef.h"

/// A property-list value as a counted object. The HAL returns string and dictionary properties as CXValue.
/// Threads: immutable, any.
class DXR_EXPORT CXValue final : public CXObject {
public:
    static CXRef<CXValue> initWithPlist(CXPlist plist);

    const CXPlist& plist() const noexcept { return _plist; }
    /// The string, or an empty string if the value is not a string.
    const std::string& string() const noexcept;

    /// The string itself, or JSON text of other values; bytes that are not UTF-8 are replaced.
    std::string description() const override;
    /// Returns true if `other` is a CXValue with equal content.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit CXValue(CXPlist plist);
    ~CXValue() override = default;

    const CXPlist _plist;
};
