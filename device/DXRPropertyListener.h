#pragma once

#include "AudioHardware.h"
#include "CXWeak.h"

#include <mutex>

/// Calls a block whenever a property of a hardware object changes, from start() until stop() or its
/// destruction.
/// Threads:   any may call start() and stop(), the block included, but not concurrently. The block runs on
///            the given queue, or without one on the hardware's notification thread. Once stop() has returned
///            on any other thread, the block is not running and is never called again.
/// Real time: no; stop() waits for a block that is running on another thread.
/// Owns:      the queue and the block. The target is held only during a call; after it has been destroyed,
///            the block is not called.
class DXR_EXPORT DXRPropertyListener final : public CXObject {
public:
    /// Receives one changed address, valid during the call only.
    using Block =
        CXBlock<void(const CXRef<CXObject>& target, const AudioObjectPropertyAddress* changedAddress)>;

    /// Creates a stopped listener. A null `addr` means an address of zeros, which matches no property.
    static CXRef<DXRPropertyListener> initWithObjectID(AudioObjectID objectID,
                                                       const AudioObjectPropertyAddress* addr,
                                                       CXRef<dxr::WorkQueue> queue,
                                                       const CXRef<CXObject>& target, Block block);

    /// Starts listening; does nothing if already started. Returns false if the hardware refuses: the listener
    /// stays stopped.
    bool start();
    /// Stops listening; does nothing if already stopped.
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
    AudioObjectPropertyListenerBlock _listener; // guarded by the mutex; empty while stopped
};
