#pragma once

#include "CXObject.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

/// A strong reference to a CXObject, or empty. Comparison is by identity; the object's isEqual() compares
/// contents.
/// Threads:   as a plain pointer: threads must not share one CXRef without a lock, but each may hold a copy.
/// Real time: everything except dropping the last reference.
template <class T> class CXRef {
public:
    CXRef() noexcept = default;
    CXRef(std::nullptr_t) noexcept {}
    /// Adds a reference to `object`; the caller keeps its own reference.
    explicit CXRef(T* object) noexcept : _object(object)
    {
        if (_object)
            _object->retain();
    }
    CXRef(const CXRef& other) noexcept : CXRef(other._object) {}
    CXRef(CXRef&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> CXRef(const CXRef<U>& other)
    noexcept : CXRef(static_cast<T*>(other.get())) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> CXRef(CXRef<U>&& other)
    noexcept : _object(other.leak()) {}
    ~CXRef()
    {
        if (_object)
            _object->release();
    }
    CXRef& operator=(CXRef other) noexcept
    {
        std::swap(_object, other._object);
        return *this;
    }

    /// Takes over a reference that the caller owns: a new object's first one, or one returned by a C function
    /// of the HAL.
    static CXRef adopt(T* object) noexcept
    {
        CXRef ref;
        ref._object = object;
        return ref;
    }
    /// Returns the object with its reference, which the caller must release. Leaves this CXRef empty.
    [[nodiscard]] T* leak() noexcept { return std::exchange(_object, nullptr); }

    T* get() const noexcept { return _object; }
    T& operator*() const noexcept { return *_object; }
    T* operator->() const noexcept { return _object; }
    explicit operator bool() const noexcept { return _object != nullptr; }

    friend bool operator==(const CXRef& a, const CXRef& b) noexcept { return a._object == b._object; }
    friend std::strong_ordering operator<=>(const CXRef& a, const CXRef& b) noexcept
    {
        return std::compare_three_way()(a._object, b._object);
    }
    friend bool operator==(const CXRef& a, std::nullptr_t) noexcept { return a._object == nullptr; }

private:
    T* _object = nullptr;
};

/// Returns `ref` cast to U, or an empty reference if the object is not a U.
template <class U, class T> CXRef<U> CXRefCast(const CXRef<T>& ref) noexcept
{
    return CXRef<U>(dynamic_cast<U*>(ref.get()));
}

template <class T> struct std::hash<CXRef<T>> {
    size_t operator()(const CXRef<T>& ref) const noexcept { return std::hash<T*>()(ref.get()); }
};
