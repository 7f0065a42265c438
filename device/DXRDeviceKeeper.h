#pragma once

#include "CXExport.h"
#include "CXRef.h"
#include "WorkQueue.h"

class DXRDevice;

/// Callback interface of a device's owner.
/// Threads:   as each function says.
class DXR_EXPORT DXRDeviceKeeper : public CXObject {
public:
    /// The serial queue that updates of devices run on. Any thread.
    virtual dxr::WorkQueue& updateQueue() const = 0;
    /// Values of the device have changed, or it has been removed. Called on the queue.
    virtual void deviceWasUpdated(const CXRef<DXRDevice>& device) = 0;

    /// The owner of devices that were made without a keeper; null at first. Any thread. A keeper that is set
    /// lives as long as the process.
    static CXRef<DXRDeviceKeeper> shared();
    static void setShared(const CXRef<DXRDeviceKeeper>& keeper);
};
