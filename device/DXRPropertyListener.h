#pragma once

#include "AudioHardware.h"
#include "CXWeak.h"

#include <mutex>

/// Calls a block whenever a property of a hardware object changes, until it is stopped or gone.
/// Threads:   start() and stop() from any, the block included; not both at the same time. The block runs on
///            the queue given, or without one on the hardware's notification thread; once stop() has returned
///            on any other thread, it is not running and never will.
/// Real time: no; stop() waits for a block that is running elsewhere.
/// Owns:      the queue and the block. The target is only held for the length of a call; once it is gone the
///            listener is deaf.
class DXR_EXPORT DXRPropertyListener final : public CXObject {
public:
    /// Receives one changed address, valid for the call only.
    using Block =
        CXBlock<void(const CXRef<CXObject>& target, const AudioObjectPropertyAddress* changedAddress)>;

    /// Does not listen yet. A null `addr` is an address of zeros, which nothing matches.
    static CXRef<DXRPropertyListener> initWithObjectID(AudioObjectID objectID,
                                                       const AudioObjectPropertyAddress* addr,
                                                       CXRef<dxr::WorkQueue> queue,
                                                       const CXRef<CXObject>& target, Block block);

    /// Listens from now on; nothing happens when it does already. When the hardware refuses, it stays
    /// stopped.
    void start();
    /// Listens no more; nothing happens when it does not.
    void stop();

    AudioObjectID objectID() const noexcept { return _objectID; }
    const AudioObjectPropertyAddress& addr() const noexcept { return _addr; }

private:
    DXRPropertyListener(AudioObjectID objectID, const AudioObjectPropertyAddress& addr,
                        CXRef<dxr::WorkQueue> queue, const CXRef<CXObject>& target, Block block);
    ~DXRPropertyListener() override;

    void _deliver(uint32_t count, const AudioObjectPropertyAddress* addresses) const;

    const CXRef<dxr::WorkQueue> _queue;
    const CXWeak<CXObject> _target;
    const Block _block;
    const AudioObjectID _objectID;
    const AudioObjectPropertyAddress _addr;
    std::mutex _mutex;                          // not held while the hardware is called
    AudioObjectPropertyListenerBlock _listener; // under the mutex; empty: stopped
};
