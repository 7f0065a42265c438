#pragma once

#include "AggregateDevice.h"

#include "SerialQueue.h"

#include <map>

/// The aggregate devices of one model, and the queue on which they follow their sub-devices.
/// Threads: any, but IO threads.
class AggregateRegistry {
public:
    AggregateRegistry() = default;
    /// As shutDown().
    ~AggregateRegistry();
    AggregateRegistry(const AggregateRegistry&) = delete;
    AggregateRegistry& operator=(const AggregateRegistry&) = delete;

    void add(AudioObjectID deviceID, const CXRef<AggregateDevice>& device);
    /// None when it is no aggregate.
    CXRef<AggregateDevice> device(AudioObjectID deviceID) const;
    CXRef<AggregateDevice> remove(AudioObjectID deviceID);

    /// Some device has come, gone or changed: the aggregates look at theirs soon. Any thread that may
    /// allocate.
    void devicesChanged();
    /// Waits until every change so far has been followed. Not on the queue itself.
    void flush();
    /// Ends every aggregate's cycles. Nothing is followed afterwards.
    void shutDown();

private:
    std::vector<CXRef<AggregateDevice>> _all() const;

    mutable std::mutex _mutex; // what follows; held for look-ups only
    std::map<AudioObjectID, CXRef<AggregateDevice>> _devices;
    CXRef<dxr::SerialQueue> _queue; // from the first aggregate on
    bool _isRefreshing = false;     // a job that has not begun is queued
};
