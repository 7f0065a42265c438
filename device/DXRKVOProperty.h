#pragma once

#include "CXBlockRef.h"
#include "CXRef.h"

#include <optional>
#include <string_view>

/// The two phases of an announcement. In the first, getters on the announcing thread return the old value.
enum class DXRKVOChange { Will, Did };

/// Whether a value that was nil and still is nil is announced.
enum class DXRKVONil { Announce, Compare };

/// One observable property of a class: its key, its getter, and the field of its published copy, the value
/// last announced to observers. A class defines a table of these where its private fields are accessible:
/// `DXRKVOProperty::of<&DXRDevice::name, &DXRDevice::_kvo_name>("name")`.
/// A copy that is an empty optional or a null reference counts as nil: the property is then announced at
/// every update, even if the getter returns the same, unless the caller asks to compare nil, too. Objects are
/// compared by isEqual().
/// Threads:   immutable; any. publish() on the main thread only.
class DXRKVOProperty {
public:
    template <auto getter, auto field> static constexpr DXRKVOProperty of(std::string_view key) noexcept
    {
        return DXRKVOProperty(key, &_publish<getter, field>);
    }

    constexpr std::string_view key() const noexcept { return _key; }
    /// Does nothing if the published copy equals the getter's result. Otherwise calls `announce`, renews the
    /// copy, and calls `announce` again. If the first call returns false, the copy stays and this ends.
    void publish(CXObject& object, DXRKVONil nil, const CXBlockRef<bool(DXRKVOChange)>& announce) const
    {
        _step(object, nil, announce);
    }

private:
    using Step = void (*)(CXObject&, DXRKVONil, const CXBlockRef<bool(DXRKVOChange)>&);

    constexpr DXRKVOProperty(std::string_view key, Step step) noexcept : _key(key), _step(step) {}

    template <class Owner, class Value> static Owner ownerOf(Value Owner::*);

    template <auto getter, auto field>
    static void _publish(CXObject& object, DXRKVONil nil, const CXBlockRef<bool(DXRKVOChange)>& announce)
    {
        auto& owner = static_cast<decltype(ownerOf(field))&>(object);
        auto& copy = owner.*field;
        std::remove_reference_t<decltype(copy)> live = (owner.*getter)();
        if (_isNil(copy) ? nil == DXRKVONil::Compare && _isNil(live) : _isEqual(copy, live))
            return;
        if (!announce(DXRKVOChange::Will))
            return;
        copy = std::move(live);
        announce(DXRKVOChange::Did);
    }

    template <class Value> static bool _isNil(const Value&) { return false; }
    template <class Value> static bool _isNil(const std::optional<Value>& value) { return !value; }
    template <class Value> static bool _isNil(const CXRef<Value>& value) { return !value; }
    template <class Value> static bool _isEqual(const Value& a, const Value& b) { return a == b; }
    // NaN counts as equal to NaN: otherwise it would be announced at every update.
    static bool _isEqual(double a, double b) { return a == b || (a != a && b != b); }
    template <class Value> static bool _isEqual(const CXRef<Value>& a, const CXRef<Value>& b)
    {
        return a->isEqual(b.get());
    }

    std::string_view _key;
    Step _step;
};
