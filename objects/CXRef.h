#pragma once

#include "CXObject.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

/// A strong reference to a CXObject, or none.
/// Threads:   as a plain pointer: one CXRef object is not for two threads at once, copies of it are.
/// Real time: all but the drop of a last reference.
/// Comparison is by identity; isEqual() of the object compares contents.
template <class T> class CXRef {
public:
    CXRef() noexcept = default;
    CXRef(std::nullptr_t) noexcept {}
    /// Adds a reference to `object`, which someone else owns.
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

    /// Takes over the reference that came with `object`: a new object's first, or one the HAL handed out.
    static CXRef adopt(T* object) noexcept
    {
        CXRef ref;
        ref._object = object;
        return ref;
    }
    /// Gives the reference away: the caller releases it.
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

/// `ref` as a U when the object is one, else an empty reference.
template <class U, class T> CXRef<U> CXRefCast(const CXRef<T>& ref) noexcept
{
    return CXRef<U>(dynamic_cast<U*>(ref.get()));
}

template <class T> struct std::hash<CXRef<T>> {
    size_t operator()(const CXRef<T>& ref) const noexcept { return std::hash<T*>()(ref.get()); }
};
