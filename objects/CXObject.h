#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

template <class T> class CXRef;
template <class T> class CXWeak;

/// The root of everything that is shared: a strong count inside the object, a weak one beside it.
/// Objects are born in a static `initWith…` with one reference, which CXRef takes over, and are destroyed by
/// the thread that drops the last. Destructors are not public.
/// Threads:   retain, release and weak references from any thread; what a class adds says its own rule.
/// Real time: retain and release, except a release that drops the last reference: that runs the destructor
///            and frees. Making an object's first weak reference allocates its control block.
class DXR_EXPORT CXObject {
public:
    CXObject(const CXObject&) = delete;
    CXObject& operator=(const CXObject&) = delete;

    /// For people: "<Class: address>" unless a class says more.
    virtual std::string description() const;
    /// Identity, unless a class compares contents. A null `other` is never equal.
    virtual bool isEqual(const CXObject* other) const;
    /// Equal objects have equal hashes.
    virtual size_t hash() const;

    /// Adds a reference. For CXRef and for the HAL's C functions; everyone else holds a CXRef.
    void retain() const noexcept CX_REALTIME;
    /// Drops a reference; the last one destroys the object, on the calling thread.
    void release() const noexcept;

protected:
    CXObject() noexcept = default;
    virtual ~CXObject();

private:
    template <class T> friend class CXWeak;

    // Lives while the object or a weak reference to it does, and then holds both counts.
    struct Control {
        explicit Control(uint32_t strongCount, const CXObject* owner) noexcept
            : strong(strongCount), object(owner)
        {}
        std::atomic<uint32_t> strong;
        std::atomic<uint32_t> weak{1}; // one for the object itself, one per CXWeak
        const CXObject* const object;  // valid while strong > 0

        bool retainUnlessGone() noexcept CX_REALTIME;
        void releaseWeak() noexcept;
    };

    Control* _control() const;
    void _destroy() const noexcept;

    // Odd: twice the strong count, plus one. Even: the Control that holds it. It changes from odd to even
    // once, by the thread that makes the first weak reference, with a compare-and-swap that carries the count
    // over; retain and release use compare-and-swap on the odd form so that none is lost in the change. The
    // release of that exchange pairs with the acquiring load in retain and release: they go on to use the
    // Control.
    mutable std::atomic<uintptr_t> _count{3};
};
