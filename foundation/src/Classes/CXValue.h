#pragma once

#include "CXPlist.h"
#include "CXRef.h"

/// A property-list value as one counted object: what the HAL hands out for a string or dictionary property.
/// Threads: immutable, any.
class DXR_EXPORT CXValue final : public CXObject {
public:
    static CXRef<CXValue> initWithPlist(CXPlist plist);

    const CXPlist& plist() const noexcept { return _plist; }
    /// The string held; empty when the value is no string.
    const std::string& string() const noexcept;

    /// The string itself, or JSON text; bytes that are not UTF-8 are replaced.
    std::string description() const override;
    /// Another CXValue with equal content.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit CXValue(CXPlist plist);
    ~CXValue() override = default;

    const CXPlist _plist;
};
