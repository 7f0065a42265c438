#pragma once

#include "CXExport.h"
#include "CXRef.h"
#include "WorkQueue.h"

class DXRDevice;

/// Callback interface of a device's owner.
/// Threads:   as stated for each function.
class DXR_EXPORT DXRDeviceKeeper : public CXObject {
public:
    /// The serial queue that updates of devices run on. Any thread.
    virtual dxr::WorkQueue& updateQueue() const = 0;
    /// Values of the device have changed, or it has been removed. Called on the queue.
    virtual void deviceWasUpdated(const CXRef<DXRDevice>& device) = 0;

    /// The owner of devices that were created without a keeper; initially null. Any thread. The shared keeper
    /// is never destroyed.
    static CXRef<DXRDeviceKeeper> shared();
    static void setShared(const CXRef<DXRDeviceKeeper>& keeper);
};
