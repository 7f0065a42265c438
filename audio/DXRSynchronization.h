#pragma once

#include "CXBlock.h"
#include "CXBlockRef.h"
#include "CXRef.h"

#include <cstdint>
#include <pthread.h>
#include <type_traits>
#include <vector>

/// A mutex that knows how deep it is held, and keeps work for the moment when it is let go.
/// Threads:   any. Deferred work runs on the thread of the outermost unlock, after it, and may lock again.
/// Real time: no; it waits.
/// A callable that throws leaves the mutex unlocked and passes its exception on.
/// Locking twice on one thread, executeOnUnlock() while holding it included, never returns; the recursive one
/// below may be locked again.
class DXR_EXPORT DXRMutex : public CXObject {
public:
    static CXRef<DXRMutex> init() { return initWithAttr(nullptr); }
    /// With POSIX attributes, or null for none. Null when the system refuses them.
    static CXRef<DXRMutex> initWithAttr(const pthread_mutexattr_t* attributes);

    void lock();
    /// Locks if that needs no waiting; whether it did.
    [[nodiscard]] bool trylock();
    /// Lets go once. Without a lock asserts "_count > 0".
    void unlock();

    // Each runs the callable with the mutex held and returns its result; a null one is not called, takes
    // no lock, and gives false or an empty reference.
    void execute(CXBlockRef<void()> block);
    template <class T>
    void execute(const CXRef<T>& object, CXBlockRef<void(const std::type_identity_t<CXRef<T>>&)> block)
    {
        if (block)
            execute([&] { block(object); });
    }
    bool execond(CXBlockRef<bool()> block);
    template <class T>
    bool execond(const CXRef<T>& object, CXBlockRef<bool(const std::type_identity_t<CXRef<T>>&)> block)
    {
        return block && execond([&] { return block(object); });
    }
    CXRef<CXObject> execobj(CXBlockRef<CXRef<CXObject>()> block);
    template <class T>
    CXRef<CXObject> execobj(const CXRef<T>& object,
                            CXBlockRef<CXRef<CXObject>(const std::type_identity_t<CXRef<T>>&)> block)
    {
        return block ? execobj([&] { return block(object); }) : nullptr;
    }
    /// Runs `block` after the outermost unlock: at the end of this call when nobody holds the mutex.
    void executeOnUnlock(const CXBlock<void()>& block);

protected:
    explicit DXRMutex(const pthread_mutexattr_t* attributes) noexcept;
    ~DXRMutex() override;

private:
    friend class DXRRecursiveMutex;

    pthread_mutex_t _mutex;
    int _error = 0; // of its creation
    // Both are changed while the mutex is held only.
    uint64_t _count = 0;
    std::vector<CXBlock<void()>> _actions;
};

/// A DXRMutex that its own thread may lock again, and lets go when it has unlocked as often.
class DXR_EXPORT DXRRecursiveMutex final : public DXRMutex {
public:
    /// Null when the system refuses.
    static CXRef<DXRRecursiveMutex> init();

private:
    using DXRMutex::DXRMutex;
    ~DXRRecursiveMutex() override = default;
};

/// Puts `newValue` into `*value` if it is `expected`; whether it was. One step, ordered against everything.
extern "C" DXR_EXPORT bool DXRAtomicCompareExchangeUInt32(uint32_t expected, uint32_t newValue,
                                                          uint32_t* value) noexcept CX_REALTIME;
