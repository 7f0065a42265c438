#include "Follower.h"

#include "Events.h"
#include "Handles.h"

namespace dxr_c {

Follower::Follower(dxr_device_callback callback, void* user)
{
    _block = [callback, user](const auto& connected, const auto& disconnected, const auto& updated) {
        const auto report = [&](const CXRef<DXRDevice>& device, dxr_change change) {
            auto* const handle = Handles::shared().give<dxr_device>(Kind::Device, device);
            callback(handle, change, user);
            (void)Handles::shared().release(handle);
        };
        for (const CXRef<DXRDevice>& device : disconnected)
            report(device, DXR_DISCONNECTED);
        for (const CXRef<DXRDevice>& device : connected) // after, because a replugged device is in both
            report(device, DXR_CONNECTED);
        for (const CXRef<DXRDevice>& device : updated)
            if (!connected.contains(device) && !disconnected.contains(device))
                report(device, DXR_UPDATED);
    };
    manager().addDeviceNotifier(CXRef<dxr::WorkQueue>(&events()), _block);
}

} // namespace dxr_c
