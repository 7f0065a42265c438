#pragma once

#include "CXBlockRef.h"
#include "CXRef.h"

#include <optional>
#include <string_view>

/// The two moments of an announcement. At the first, getters on the announcing thread return the old value.
enum class DXRKVOChange { Will, Did };

/// One observable property of a class: its key, its getter, and the field that keeps what observers were
/// given last, its published copy. A class makes a table of these where its own fields can be named:
/// `DXRKVOProperty::of<&DXRDevice::name, &DXRDevice::_kvo_name>("name")`.
/// A copy that is an empty optional or reference is nil, and announced at every update, even when the getter
/// returns the same. Objects are compared by isEqual().
/// Threads:   immutable; any. publish() on the main thread.
class DXRKVOProperty {
public:
    template <auto getter, auto field> static constexpr DXRKVOProperty of(std::string_view key) noexcept
    {
        return DXRKVOProperty(key, &_publish<getter, field>);
    }

    constexpr std::string_view key() const noexcept { return _key; }
    /// Unless the published copy is what the getter returns: calls `announce`, renews the copy, and calls it
    /// again.
    void publish(CXObject& object, const CXBlockRef<void(DXRKVOChange)>& announce) const
    {
        _step(object, announce);
    }

private:
    using Step = void (*)(CXObject&, const CXBlockRef<void(DXRKVOChange)>&);

    constexpr DXRKVOProperty(std::string_view key, Step step) noexcept : _key(key), _step(step) {}

    template <class Owner, class Value> static Owner ownerOf(Value Owner::*);

    template <auto getter, auto field>
    static void _publish(CXObject& object, const CXBlockRef<void(DXRKVOChange)>& announce)
    {
        auto& owner = static_cast<decltype(ownerOf(field))&>(object);
        auto& copy = owner.*field;
        std::remove_reference_t<decltype(copy)> live = (owner.*getter)();
        if (!_isNil(copy) && _isEqual(copy, live))
            return;
        announce(DXRKVOChange::Will);
        copy = std::move(live);
        announce(DXRKVOChange::Did);
    }

    template <class Value> static bool _isNil(const Value&) { return false; }
    template <class Value> static bool _isNil(const std::optional<Value>& value) { return !value; }
    template <class Value> static bool _isNil(const CXRef<Value>& value) { return !value; }
    template <class Value> static bool _isEqual(const Value& a, const Value& b) { return a == b; }
    // NaN is equal to NaN: it would be announced at every update.
    static bool _isEqual(double a, double b) { return a == b || (a != a && b != b); }
    template <class Value> static bool _isEqual(const CXRef<Value>& a, const CXRef<Value>& b)
    {
        return a->isEqual(b.get());
    }

    std::string_view _key;
    Step _step;
};
