#pragma once

#include "DXRDeviceManager.h"
#include "dxr/c.h"

namespace dxr_c {

/// A registered callback for changes of devices.
class Follower final : public CXObject {
public:
    Follower(dxr_device_callback callback, void* user);
    ~Follower() override { manager().removeDeviceNotifier(_block, DXRDeviceManager::WhenRunning::Wait); }
    static DXRDeviceManager& manager() { return DXRDeviceManager::sharedDeviceManager(); }

private:
    DXRDeviceManager::NotifierBlock _block;
};

} // namespace dxr_c
