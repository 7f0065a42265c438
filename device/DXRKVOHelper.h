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

/// Publishes changes of an object's observable properties: for each property that differs from its published
/// copy, it announces will-change to observers, renews the copy, and announces did-change.
///
/// A getter of the object returns the copy while isUpdateInProgress(), otherwise the live value, so that an
/// observer reads the old value at will-change and the new one at did-change.
///
/// If a getter's read of the hardware fails, its result is not announced; the property is read again soon,
/// and announced if it differs. Only that read is checked: if an observer calls at did-change a getter that
/// reads the hardware, and this read fails, it gets the getter's fallback.
/// Threads:   any; announcements on the main thread only (MainQueue). An update requested on another thread
///            runs there later, in the order of the requests. A request equal to a waiting one is dropped, so
///            that memory does not grow in a program that never runs its main queue.
/// Real time: no.
/// Owns:      not the object: the object owns the helper.
class DXR_EXPORT DXRKVOHelper final : public CXObject {
public:
    using Keys = std::vector<std::string>;

    /// Whether the calling thread is in the middle of a change of the object, and may hold the object's
    /// locks.
    using IsChanging = bool (*)(const CXObject& object);

    /// `properties` is the table of the object's class, in the order of its keys; it must never be destroyed.
    /// While `isChanging` returns true on the main thread, the announcement is posted for later, as on other
    /// threads.
    static CXRef<DXRKVOHelper> initWithObject(CXObject& object, std::span<const DXRKVOProperty> properties,
                                              IsChanging isChanging = nullptr);

    /// The keys that can be observed, in the table's order; empty after the object has been destroyed.
    Keys observableKeys() const;

    /// Calls `block` around every change of the property from now on, while the returned observation exists.
    /// Returns null if the object does not publish `key`.
    [[nodiscard]] CXRef<DXRKVOObservation> observe(const std::string& key, DXRKVOObservation::Block block);
    /// As above, for several keys.
    [[nodiscard]] std::vector<CXRef<DXRKVOObservation>> observe(const Keys& keys,
                                                                const DXRKVOObservation::Block& block);

    void updateAllValues();
    void updateValueForKey(std::string_view key);
    /// As updateValueForKey(), but a value that was nil and still is nil is not announced: for callers that
    /// update at every occasion.
    void updateValueForKeyIfChanged(std::string_view key);
    /// Publishes changes of these properties, in their order: at once on the main thread, later if called on
    /// another. A call by an observer during an update is dropped. Unknown keys are ignored.
    void updateValuesForKeys(const Keys& keys);
    /// Whether the calling thread is announcing will-change.
    bool isUpdateInProgress() const noexcept
    {
        return _updating.load(std::memory_order_relaxed) == pthread_self();
    }

private:
    DXRKVOHelper(CXObject& object, std::span<const DXRKVOProperty> properties, IsChanging isChanging);
    ~DXRKVOHelper() override = default;

    using Registration = DXRKVOObservation::Registration;
    using Places = std::vector<uint8_t>; // indices in the table of properties
    enum class Reason { Update, UpdateIfChanged, Repeat };
    struct Pass {
        Places places; // of the properties to publish
        Reason reason = Reason::Update;

        bool operator==(const Pass&) const = default;
    };

    std::optional<uint8_t> _placeOf(std::string_view key) const;
    void _update(Pass pass);
    bool _isForMainQueue() const;
    void _runWaiting(const Pass& pass);
    void _run(const Pass& first);
    Places _publish(CXObject& object, const Pass& pass);
    bool _publish(CXObject& object, const DXRKVOProperty& property, DXRKVONil nil);
    void _repeatLater(const Places& unread, Reason reason);
    void _repeat();
    void _announce(const DXRKVOProperty& property, DXRKVOChange change);
    /// Called with _lock held. This is safe because an ended registration holds no block: only registrations
    /// are destroyed here.
    void _forgetEnded();

    const CXWeak<CXObject> _obj;
    const std::span<const DXRKVOProperty> _properties;
    const IsChanging _isChanging; // may be null
    // The thread that announces will-change, and the thread that runs a pass; 0: none. A thread only compares
    // these with its own ID, which no other thread stores: neither ordering nor a lock is needed.
    std::atomic<pthread_t> _updating{0};
    std::atomic<pthread_t> _processing{0};
    const CXRef<DXRRecursiveMutex> _lock; // guards all below
    std::vector<Pass> _waiting;           // posted to the main thread
    std::vector<Pass> _postponed;         // became due during another pass, in a nested run of the main queue
    Places _unread;                       // to be read again by a repeat, which waits while there are any
    uint32_t _repeats = 0;                // in a row, since an update
    std::vector<CXRef<Registration>> _registrations;
};
