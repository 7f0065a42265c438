#pragma once

#include "AggregateDevice.h"

#include "SerialQueue.h"

#include <map>

/// The aggregate devices of one model, and the queue on which they adapt to their sub-devices.
/// Threads: any except IO threads.
class AggregateRegistry {
public:
    AggregateRegistry() = default;
    /// Calls shutDown().
    ~AggregateRegistry();
    AggregateRegistry(const AggregateRegistry&) = delete;
    AggregateRegistry& operator=(const AggregateRegistry&) = delete;

    /// Returns the queue, created before the first add(). Throws std::system_error if no thread can be
    /// created.
    CXRef<dxr::SerialQueue> prepare();
    void add(AudioObjectID deviceID, const CXRef<AggregateDevice>& device);
    /// Returns null if the device is not an aggregate.
    CXRef<AggregateDevice> device(AudioObjectID deviceID) const;
    CXRef<AggregateDevice> remove(AudioObjectID deviceID);

    /// Called when a device has appeared, disappeared or changed: refreshes the aggregates soon. Threads: any
    /// that may allocate.
    void devicesChanged();
    /// Waits until the aggregates have applied every change so far. Returns at once on the queue itself.
    void flush();
    /// Ends every aggregate's cycles. Later changes are ignored. An attempt to start that an aggregate has
    /// queued for later may keep the queue for that time, at most a minute, and then does nothing.
    void shutDown();

private:
    std::vector<CXRef<AggregateDevice>> _all() const;

    mutable std::mutex _mutex; // guards what follows; held for look-ups only
    std::map<AudioObjectID, CXRef<AggregateDevice>> _devices;
    CXRef<dxr::SerialQueue> _queue; // created for the first aggregate
    bool _isRefreshing = false;     // a refresh is queued that has not begun
};
