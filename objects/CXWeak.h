#pragma once

#include "CXRef.h"

/// A reference that does not keep its object alive; lock() returns the object while a CXRef does.
/// Threads:   one CXWeak object is for one thread at a time; lock() may race with the object's end.
/// Real time: lock() and copying. Making the first weak reference to an object allocates.
template <class T> class CXWeak {
public:
    CXWeak() noexcept = default;
    CXWeak(const CXRef<T>& object) : CXWeak(object.get()) {}
    /// The caller holds a reference to `object` for the length of the call.
    explicit CXWeak(T& object) : CXWeak(&object) {}
    CXWeak(const CXWeak& other) noexcept : _control(other._control), _object(other._object)
    {
        if (_control)
            _control->weak.fetch_add(1, std::memory_order_relaxed);
    }
    CXWeak(CXWeak&& other) noexcept
        : _control(std::exchange(other._control, nullptr)), _object(std::exchange(other._object, nullptr))
    {}
    ~CXWeak()
    {
        if (_control)
            _control->releaseWeak();
    }
    CXWeak& operator=(CXWeak other) noexcept
    {
        std::swap(_control, other._control);
        std::swap(_object, other._object);
        return *this;
    }

    /// The object, or an empty reference once its last strong reference is gone.
    CXRef<T> lock() const noexcept CX_REALTIME
    {
        return _control && _control->retainUnlessGone() ? CXRef<T>::adopt(_object) : CXRef<T>();
    }

private:
    explicit CXWeak(T* object) : _object(object)
    {
        if (!object)
            return;
        _control = static_cast<const CXObject*>(object)->_control();
        _control->weak.fetch_add(1, std::memory_order_relaxed);
    }

    CXObject::Control* _control = nullptr;
    T* _object = nullptr;
};
