#pragma once

#include "CXExport.h"
#include "CXRef.h"
#include "WorkQueue.h"

class DXRDevice;

/// What a device asks of whoever owns it: where to be heard, and to be heard there.
/// Threads:   as each says.
class DXR_EXPORT DXRDeviceKeeper : public CXObject {
public:
    /// The serial queue that updates of devices run on. Any thread.
    virtual platform::WorkQueue& updateQueue() const = 0;
    /// Values of the device have changed, or it has gone. Called on the queue.
    virtual void deviceWasUpdated(const CXRef<DXRDevice>& device) = 0;

    /// Who keeps the devices that were made without a keeper; null at first. Any thread. A keeper that is set lives
    /// as long as the process.
    static CXRef<DXRDeviceKeeper> shared();
    static void setShared(const CXRef<DXRDeviceKeeper>& keeper);
};
