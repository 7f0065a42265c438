#include "CXDispatchSource.h"

#include "CXDispatchQueue.h"

namespace {

constexpr uint32_t cancelRequested = 1;
constexpr uint32_t cancelDone = 2;

} // namespace

CXDispatchSource::CXDispatchSource()
    : _queue(CXLockFreeReference::init()), _handler(CXLockFreeReference::init())
{}

CXDispatchSource::~CXDispatchSource() = default;

CXRef<CXDispatchQueue> CXDispatchSource::queue() const
{
    return CXRefCast<CXDispatchQueue>(_queue->copyObjectReference());
}

void CXDispatchSource::setDispatchQueue(const CXRef<CXDispatchQueue>& queue)
{
    if (queue && _cancelled.load() != 0)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    CXRef<CXObject> old;
    do {
        old = _queue->copyObjectReference();
    } while (!_queue->setObjectReference(queue, old));
    if (old)
        _leave(*static_cast<CXDispatchQueue*>(old.get()));
    if (!queue)
        return;
    _enter(*queue);
    if ((_cancelled.fetch_or(0) & cancelRequested) != 0)
        _leaveForGood(queue);
}

void CXDispatchSource::cancel()
{
    const uint32_t before = _cancelled.fetch_or(cancelRequested);
    const CXRef<CXDispatchQueue> queue = this->queue();
    if (!queue)
        _finishCancel(nullptr);
    else if ((before & cancelRequested) == 0)
        queue->dispatchAsyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel,
                                  [self = CXRef(this), queue] { self->_finishCancel(queue); });
}

/// Runs as work of `queue`, or on any thread if `queue` is null.
void CXDispatchSource::_finishCancel(const CXRef<CXDispatchQueue>& queue)
{
    if ((_cancelled.fetch_or(cancelDone) & cancelDone) != 0)
        return;
    _handler->setObjectReference(nullptr);
    if (queue)
        _leaveForGood(queue);
}

void CXDispatchSource::_leaveForGood(const CXRef<CXDispatchQueue>& queue)
{
    _leave(*queue);
    _queue->setObjectReference(nullptr, queue);
}
