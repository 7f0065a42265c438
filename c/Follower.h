#pragma once

#include "DXRDeviceManager.h"
#include "Events.h"
#include "dxr/c.h"

namespace dxr_c {

/// A registered callback for changes of devices.
class Follower final : public CXObject {
public:
    Follower(dxr_device_callback callback, void* user);
    ~Follower() override
    {
        silence(); // in its own callback, nothing waits for the rest of the changes
        manager().removeDeviceNotifier(_block, DXRDeviceManager::WhenRunning::Wait);
    }
    /// No call begins any more; one may be in progress.
    void silence() noexcept { _notice->isOver = true; }
    static DXRDeviceManager& manager() { return DXRDeviceManager::sharedDeviceManager(); }

private:
    const CXRef<Notice> _notice = CXRef<Notice>::adopt(new Notice);
    DXRDeviceManager::NotifierBlock _block;
};

} // namespace dxr_c
