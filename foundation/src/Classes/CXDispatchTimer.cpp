#include "CXDispatchTimer.h"

#include "CXDispatchQueue.h"
#include "CXStoredBlock.h"

namespace {

constexpr uint32_t cancelRequested = 1;
constexpr uint32_t cancelDone = 2;

using StoredHandler = CXStoredBlock<void(const CXRef<CXDispatchTimer>&)>;

} // namespace

CXRef<CXDispatchTimer> CXDispatchTimer::init()
{
    CXRef<CXDispatchTimer> timer = CXRef<CXDispatchTimer>::adopt(new CXDispatchTimer);
    return timer->_queue && timer->_handler ? timer : nullptr;
}

CXDispatchTimer::CXDispatchTimer()
    : _queue(CXLockFreeReference::init()), _handler(CXLockFreeReference::init())
{}

CXRef<CXDispatchQueue> CXDispatchTimer::queue() const
{
    return CXRefCast<CXDispatchQueue>(_queue->copyObjectReference());
}

CXDispatchTimer::Handler CXDispatchTimer::handler() const
{
    return StoredHandler::load(*_handler);
}

void CXDispatchTimer::setDispatchQueue(const CXRef<CXDispatchQueue>& queue)
{
    if (queue && _cancelled.load() != 0)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    CXRef<CXObject> old;
    do {
        old = _queue->copyObjectReference();
    } while (!_queue->setObjectReference(queue, old));
    if (old)
        static_cast<CXDispatchQueue*>(old.get())->removeTimer(CXRef(this));
    if (queue)
        queue->addTimer(CXRef(this));
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
    StoredHandler::store(handler, *_handler);
}

void CXDispatchTimer::cancel()
{
    const CXRef<CXDispatchQueue> queue = this->queue();
    const uint32_t before = _cancelled.fetch_or(cancelRequested);
    if (!queue)
        _finishCancel();
    else if ((before & cancelRequested) == 0)
        queue->dispatchAsyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel,
                                  [self = CXRef(this)] { self->_finishCancel(); });
}

void CXDispatchTimer::_finishCancel()
{
    if ((_cancelled.fetch_or(cancelDone) & cancelDone) != 0)
        return;
    _handler->setObjectReference(nullptr);
    if (const CXRef<CXDispatchQueue> queue = this->queue())
        queue->removeTimer(CXRef(this));
    _queue->setObjectReference(nullptr);
}
