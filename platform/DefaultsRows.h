#pragma once

#include "CXRef.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace dxr {

/// The stored value of one key. Later snapshots share the object while the value stays the same.
/// Threads: immutable, any.
class DefaultsRow final : public CXObject {
public:
    static CXRef<DefaultsRow> initWithValue(std::string value)
    {
        return CXRef<DefaultsRow>::adopt(new DefaultsRow(std::move(value)));
    }
    const std::string& value() const noexcept { return _value; }

private:
    explicit DefaultsRow(std::string value) : _value(std::move(value)) {}
    ~DefaultsRow() override = default;

    const std::string _value;
};

using DefaultsRows = std::map<std::string, CXRef<DefaultsRow>, std::less<>>;
/// New values by key; std::nullopt removes the key.
using DefaultsChanges = std::map<std::string, std::optional<std::string>, std::less<>>;

/// The content of a suite at one time.
/// Threads: immutable, any.
class DefaultsSnapshot final : public CXObject {
public:
    static CXRef<DefaultsSnapshot> initWithRows(DefaultsRows rows)
    {
        return CXRef<DefaultsSnapshot>::adopt(new DefaultsSnapshot(std::move(rows)));
    }
    const DefaultsRows& rows() const noexcept { return _rows; }
    /// Returns null if the key has no value.
    CXRef<DefaultsRow> row(std::string_view key) const
    {
        const auto found = _rows.find(key);
        return found == _rows.end() ? nullptr : found->second;
    }

private:
    explicit DefaultsSnapshot(DefaultsRows rows) : _rows(std::move(rows)) {}
    ~DefaultsSnapshot() override = default;

    const DefaultsRows _rows;
};

} // namespace dxr
