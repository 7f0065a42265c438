#include "HALReadInterception.h"

#include "HALIOProcTable.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<bool> isInstalled{false}; // lets reads skip the lock when no interceptor is set
std::mutex mutex;

HALReadInterceptor& installed()
{
    static auto* interceptor =
        new HALReadInterceptor; // never destroyed: other threads may read while the process exits
    return *interceptor;
}

} // namespace

void halInterceptReads(HALReadInterceptor interceptor)
{
    const std::scoped_lock lock(mutex);
    isInstalled = bool(interceptor);
    std::swap(installed(), interceptor);
}

HALStatus halIntercepted(AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool isSize)
{
    if (!isInstalled.load(std::memory_order_relaxed) || HALIOProcTable::onIOThreadOf(objectID))
        return kAudioHardwareNoError;
    HALReadInterceptor interceptor;
    {
        const std::scoped_lock lock(mutex);
        interceptor = installed();
    }
    return interceptor ? interceptor(objectID, address, isSize) : kAudioHardwareNoError;
}
