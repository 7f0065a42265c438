#pragma once

#include "CXBlock.h"
#include "CXBlockRef.h"
#include "CXRef.h"

#include <cstdint>
#include <pthread.h>
#include <type_traits>
#include <vector>

/// A mutex that counts how often it is locked and runs deferred work when it is unlocked.
/// Threads:   any. Deferred work runs on the thread of the outermost unlock, after it, and may lock the mutex
///            again.
/// Real time: no; it waits.
/// If a callable throws, the mutex is unlocked and the exception is passed on.
/// Locking twice on one thread deadlocks, also by executeOnUnlock() while the mutex is held; a
/// DXRRecursiveMutex may be locked again.
class DXR_EXPORT DXRMutex : public CXObject {
public:
    static CXRef<DXRMutex> init() { return initWithAttr(nullptr); }
    /// Creates a mutex with POSIX attributes, or the defaults if null. Returns null if the system refuses
    /// them.
    static CXRef<DXRMutex> initWithAttr(const pthread_mutexattr_t* attributes);

    void lock();
    /// Locks if the mutex is free. Returns true if it did.
    [[nodiscard]] bool trylock();
    /// Unlocks once. Asserts "_count > 0" if the mutex is not locked.
    void unlock();

    // The following functions run the callable with the mutex held and return its result. They do not lock
    // for a null callable, and return false or null.
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
    /// Runs `block` after the outermost unlock: before this call returns if the mutex is not held.
    void executeOnUnlock(const CXBlock<void()>& block);

protected:
    explicit DXRMutex(const pthread_mutexattr_t* attributes) noexcept;
    ~DXRMutex() override;

private:
    friend class DXRRecursiveMutex;

    pthread_mutex_t _mutex;
    int _error = 0; // result of pthread_mutex_init()
    // Accessed only while the mutex is held.
    uint64_t _count = 0;
    std::vector<CXBlock<void()>> _actions;
};

/// A DXRMutex that its owning thread may lock repeatedly; it is released by the same number of unlocks.
class DXR_EXPORT DXRRecursiveMutex final : public DXRMutex {
public:
    /// Returns null if the system cannot create it.
    static CXRef<DXRRecursiveMutex> init();

private:
    using DXRMutex::DXRMutex;
    ~DXRRecursiveMutex() override = default;
};

/// Stores `newValue` in `*value` if it equals `expected`. Returns true if it did. Atomic and sequentially
/// consistent.
extern "C" DXR_EXPORT bool DXRAtomicCompareExchangeUInt32(uint32_t expected, uint32_t newValue,
                                                          uint32_t* value) noexcept CX_REALTIME;
