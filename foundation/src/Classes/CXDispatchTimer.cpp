#include "CXDispatchTimer.h"

#include "CXDispatchQueue.h"
#include "CXStoredBlock.h"

namespace {

using StoredHandler = CXStoredBlock<void(const CXRef<CXDispatchTimer>&)>;

} // namespace

CXRef<CXDispatchTimer> CXDispatchTimer::init()
{
    CXRef<CXDispatchTimer> timer = CXRef<CXDispatchTimer>::adopt(new CXDispatchTimer);
    return timer->isWhole() ? timer : nullptr;
}

CXDispatchTimer::Handler CXDispatchTimer::handler() const
{
    return StoredHandler::load(storedHandler());
}

void CXDispatchTimer::setTimeoutAbsolute(uint64_t deadline, uint64_t interval)
{
    _deadline.store(deadline);
    _interval.store(interval);
    if (const CXRef<CXDispatchQueue> queue = this->queue())
        queue->updateTimer(CXRef(this));
}

void CXDispatchTimer::setTimeoutHandler(const Handler& handler)
{
    StoredHandler::store(handler, storedHandler());
}

void CXDispatchTimer::call(std::span<const std::byte> /*message*/)
{
    if (const Handler handler = this->handler())
        handler(CXRef(this));
}

void CXDispatchTimer::_enter(CXDispatchQueue& queue)
{
    queue.addTimer(CXRef(this));
}

void CXDispatchTimer::_leave(CXDispatchQueue& queue)
{
    queue.removeTimer(CXRef(this));
}
