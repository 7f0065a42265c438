#include "DXRDeviceKeeper.h"

#include <atomic>

namespace {

std::atomic<DXRDeviceKeeper*> sharedKeeper{nullptr}; // holds a reference, never released

} // namespace

CXRef<DXRDeviceKeeper> DXRDeviceKeeper::shared()
{
    return CXRef<DXRDeviceKeeper>(sharedKeeper.load());
}

void DXRDeviceKeeper::setShared(const CXRef<DXRDeviceKeeper>& keeper)
{
    DXRDeviceKeeper* none = nullptr;
    CXRef<DXRDeviceKeeper> kept = keeper;
    if (sharedKeeper.compare_exchange_strong(none, kept.get()))
        (void)kept.leak();
}
