#pragma once

#include "CXWeak.h"
#include "DXRKVOObservation.h"
#include "DXRSynchronization.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Publishes changes of an object's observable properties: for each that differs from its published copy,
/// observers get will-change, the copy is renewed, and they get did-change.
///
/// A getter of the object returns the copy while isUpdateInProgress(), else the live value, so that an
/// observer reads the old value at will-change and the new one at did-change.
/// Threads:   any; announcements on the main thread only (MainQueue). An update asked for elsewhere runs
///            there later, in the order of the asking. Equal ones that still wait are one, so that a program
///            which never serves its main queue does not grow.
/// Real time: no.
/// Owns:      nothing of the object, which owns this.
class DXR_EXPORT DXRKVOHelper final : public CXObject {
public:
    using Keys = std::vector<std::string>;

    /// Whether the calling thread is in the middle of a change of the object, and may hold its locks.
    using IsChanging = bool (*)(const CXObject& object);

    /// `properties` is the table of the object's class, in the order of its keys; it outlives everything.
    /// While `isChanging`, the main thread announces later, as other threads do.
    static CXRef<DXRKVOHelper> initWithObject(CXObject& object, std::span<const DXRKVOProperty> properties,
                                              IsChanging isChanging = nullptr);

    /// The keys that can be observed, in their order; none once the object is gone.
    Keys observableKeys() const;

    /// Calls `block` around every change of the property from now on, while the result is held. Null for a
    /// key that the object does not publish.
    [[nodiscard]] CXRef<DXRKVOObservation> observe(const std::string& key, DXRKVOObservation::Block block);
    /// The same for several keys.
    [[nodiscard]] std::vector<CXRef<DXRKVOObservation>> observe(const Keys& keys,
                                                                const DXRKVOObservation::Block& block);

    void updateAllValues();
    void updateValueForKey(std::string_view key);
    /// Publishes what has changed of these, in their order. On the main thread at once; there, asked for by
    /// an observer during an update, it is dropped. Unknown keys are skipped.
    void updateValuesForKeys(const Keys& keys);
    /// Whether the calling thread is in the middle of a will-change announcement.
    bool isUpdateInProgress() const noexcept
    {
        return _updating.load(std::memory_order_relaxed) == pthread_self();
    }

private:
    DXRKVOHelper(CXObject& object, std::span<const DXRKVOProperty> properties, IsChanging isChanging);
    ~DXRKVOHelper() override = default;

    using Registration = DXRKVOObservation::Registration;
    /// What is to be published, as places in the table.
    using Pass = std::vector<uint8_t>;

    std::optional<uint8_t> _placeOf(std::string_view key) const;
    void _update(Pass pass);
    bool _isForMainQueue() const;
    void _runWaiting(const Pass& pass);
    void _run(const Pass& first);
    void _announce(const DXRKVOProperty& property, DXRKVOChange change);
    /// Under _lock. What has ended holds nothing any more, so that nothing is destroyed here but the
    /// registrations.
    void _forgetEnded();

    const CXWeak<CXObject> _obj;
    const std::span<const DXRKVOProperty> _properties;
    const IsChanging _isChanging; // may be null
    // The thread in a will-change announcement, and the one in a pass; 0: none. Everyone asks only whether it
    // is themselves, and nobody else stores that: no order is needed, and no lock.
    std::atomic<pthread_t> _updating{0};
    std::atomic<pthread_t> _processing{0};
    const CXRef<DXRRecursiveMutex> _lock; // of all below
    std::vector<Pass> _waiting;           // on their way to the main thread
    std::vector<Pass> _postponed;         // came due inside another, in a nested run of the main queue
    std::vector<CXRef<Registration>> _registrations;
};
