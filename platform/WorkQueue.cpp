#include "WorkQueue.h"

#include "DelayTimer.h"

#include <semaphore>
#include <system_error>

namespace dxr {

void WorkQueue::sync(const Work& work)
{
    if (!work)
        return;
    if (isCurrent())
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), _label);
    std::binary_semaphore done(0);
    async([&] {
        work();
        done.release();
    });
    done.acquire();
}

void WorkQueue::after(uint64_t delayNanoseconds, Work work)
{
    DelayTimer::shared().schedule(delayNanoseconds,
                                  [queue = CXRef<WorkQueue>(this), work] { queue->async(work); });
}

} // namespace dxr
