#include "CXObject.h"

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <typeinfo>

CXObject::~CXObject() = default;

std::string CXObject::description() const
{
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); } // __cxa_demangle used malloc()
    };
    int status = 0;
    const std::unique_ptr<char, Free> name(
        abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status));
    char address[24];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return std::string("<") + (name ? name.get() : "CXObject") + ": " + address + ">";
}

bool CXObject::isEqual(const CXObject* other) const
{
    return this == other;
}

size_t CXObject::hash() const
{
    return std::hash<const void*>()(this);
}

void CXObject::retain() const noexcept
{
    uintptr_t count = _count.load(std::memory_order_acquire);
    while ((count & 1) != 0) {
        // Relaxed would suffice on success, because the caller already holds a reference. A failure may read
        // the Control pointer and needs acquire, and a failure must not be ordered more strictly than a
        // success.
        if (_count.compare_exchange_weak(count, count + 2, std::memory_order_acquire,
                                         std::memory_order_acquire))
            return;
    }
    reinterpret_cast<Control*>(count)->strong.fetch_add(1, std::memory_order_relaxed);
}

void CXObject::release() const noexcept
{
    uintptr_t count = _count.load(std::memory_order_acquire);
    while ((count & 1) != 0) {
        // Release: this thread's accesses happen before the destruction. Acquire: the destruction happens
        // after every other thread's accesses.
        if (!_count.compare_exchange_weak(count, count - 2, std::memory_order_acq_rel,
                                          std::memory_order_acquire))
            continue;
        if (count == 3)
            delete this;
        return;
    }
    if (reinterpret_cast<Control*>(count)->strong.fetch_sub(1, std::memory_order_acq_rel) == 1)
        _destroy();
}

void CXObject::_destroy() const noexcept
{
    auto* control = reinterpret_cast<Control*>(_count.load(std::memory_order_relaxed));
    delete this;
    control->releaseWeak();
}

CXObject::Control* CXObject::_control() const
{
    uintptr_t count = _count.load(std::memory_order_acquire);
    if ((count & 1) == 0)
        return reinterpret_cast<Control*>(count);
    auto fresh = std::make_unique<Control>(0U, this);
    do {
        fresh->strong.store(static_cast<uint32_t>(count >> 1), std::memory_order_relaxed);
        if (_count.compare_exchange_weak(count, reinterpret_cast<uintptr_t>(fresh.get()),
                                         std::memory_order_acq_rel, std::memory_order_acquire))
            return fresh.release();
    } while ((count & 1) != 0);
    return reinterpret_cast<Control*>(count); // another thread installed its Control first
}

bool CXObject::Control::retainUnlessGone() noexcept
{
    uint32_t count = strong.load(std::memory_order_relaxed);
    while (count != 0) {
        // Acquire: pairs with the thread that made the weak reference, which published the object before.
        if (strong.compare_exchange_weak(count, count + 1, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            return true;
    }
    return false;
}

void CXObject::Control::releaseWeak() noexcept
{
    if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}
