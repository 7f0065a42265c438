#pragma once

#include "CXRef.h"

/// A reference that does not keep its object alive. lock() returns a strong reference while another CXRef
/// exists.
/// Threads:   one thread at a time may use a CXWeak; lock() may race with the destruction of the object.
/// Real time: lock() and copying. Making the first weak reference to an object allocates.
template <class T> class CXWeak {
public:
    CXWeak() noexcept = default;
    CXWeak(const CXRef<T>& object) : CXWeak(object.get()) {}
    /// The caller must hold a reference to `object` during the call.
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

    /// Returns the object, or an empty reference after its last strong reference was dropped.
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
