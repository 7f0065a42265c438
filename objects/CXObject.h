#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

template <class T> class CXRef;
template <class T> class CXWeak;

/// Base class of all shared objects: a strong reference count inside the object, and a weak one in a control
/// block beside it. A static `initWith…` function creates the object with one reference, which a CXRef takes
/// over. The thread that drops the last reference destroys the object. Destructors are not public.
/// Threads:   retain, release and weak references may be used on any thread; each class states the rule for
///            its own functions.
/// Real time: retain and release, except a release that drops the last reference: that runs the destructor
///            and frees memory. Creating an object's first weak reference allocates its control block.
class DXR_EXPORT CXObject {
public:
    CXObject(const CXObject&) = delete;
    CXObject& operator=(const CXObject&) = delete;

    /// Text for logs and debugging: "<Class: address>" unless a class overrides it.
    virtual std::string description() const;
    /// Compares identity unless a class overrides it to compare contents. Returns false if `other` is null.
    virtual bool isEqual(const CXObject* other) const;
    /// Equal objects have equal hashes.
    virtual size_t hash() const;

    /// Adds a reference. Only CXRef and the HAL's C functions call this; other code holds a CXRef.
    void retain() const noexcept CX_REALTIME;
    /// Drops a reference. Dropping the last one destroys the object on the calling thread.
    void release() const noexcept;

protected:
    CXObject() noexcept = default;
    virtual ~CXObject();

private:
    template <class T> friend class CXWeak;

    // Holds both counts once it exists. Allocated until the object and all weak references to it are
    // destroyed.
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

    // An odd value is twice the strong count, plus one. An even value is the address of the Control that
    // holds the count. The value changes from odd to even once: the thread that makes the first weak
    // reference copies the count into a Control and installs it with a compare-and-swap. retain and release
    // change the odd form by compare-and-swap, so no change is lost. The release order of the installing
    // exchange pairs with the acquire loads in retain and release, which then use the Control.
    mutable std::atomic<uintptr_t> _count{3};
};
