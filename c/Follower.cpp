#include "Follower.h"

#include "Handles.h"
#include "LogSink.h"

#include <new>

namespace dxr_c {

namespace {

/// A handle for the device, with a reference that the callback has meanwhile; null without memory.
dxr_device* lend(const CXRef<DXRDevice>& device)
{
    try {
        return Handles::shared().give<dxr_device>(Kind::Device, device);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void takeBack(const dxr_device* handle)
{
    try {
        (void)Handles::shared().release(handle);
    } catch (const Failure&) {
        dxr::LogSink::log("dxr: a dxr_device_callback has released a reference that it did not hold");
    }
}

} // namespace

Follower::Follower(dxr_device_callback callback, void* user)
{
    _block = [notice = _notice, callback, user](const auto& connected, const auto& disconnected,
                                                const auto& updated) {
        const auto report = [&](const CXRef<DXRDevice>& device, dxr_change change) {
            auto* const handle = notice->isOver ? nullptr : lend(device);
            if (!handle)
                return;
            callback(handle, change, user);
            takeBack(handle);
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
