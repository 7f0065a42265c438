#include "CXDispatchReceiver.h"

#include "CXDispatchQueue.h"
#include "CXStoredBlock.h"

namespace {

constexpr uint32_t cancelRequested = 1;
constexpr uint32_t cancelDone = 2;

constexpr uint32_t makesOwnPort =
    CXDispatchReceiverReleasesSendRight | CXDispatchReceiverReleasesReceiveRight;

using StoredHandler = CXStoredBlock<void(const CXRef<CXDispatchReceiver>&, std::span<const std::byte>)>;

} // namespace

CXRef<CXDispatchReceiver> CXDispatchReceiver::init(const CXRef<platform::Port>& port, uint32_t dealloc)
{
    CXRef<platform::Port> own = port;
    if (!own && (dealloc & makesOwnPort) == makesOwnPort)
        own = platform::Port::init();
    CXRef<CXDispatchReceiver> receiver =
        CXRef<CXDispatchReceiver>::adopt(new CXDispatchReceiver(std::move(own), dealloc));
    return receiver->_queue && receiver->_handler ? receiver : nullptr;
}

CXDispatchReceiver::CXDispatchReceiver(CXRef<platform::Port> port, uint32_t disposition)
    : _port(std::move(port)), _disposition(disposition), _queue(CXLockFreeReference::init()),
      _handler(CXLockFreeReference::init())
{}

CXDispatchReceiver::~CXDispatchReceiver()
{
    if (_port && (_disposition & CXDispatchReceiverReleasesReceiveRight) != 0)
        _port->close();
}

CXRef<CXDispatchQueue> CXDispatchReceiver::queue() const
{
    return CXRefCast<CXDispatchQueue>(_queue->copyObjectReference());
}

CXDispatchReceiver::Handler CXDispatchReceiver::handler() const
{
    return StoredHandler::load(*_handler);
}

void CXDispatchReceiver::setDispatchQueue(const CXRef<CXDispatchQueue>& queue)
{
    if (queue && _cancelled.load() != 0)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    CXRef<CXObject> old;
    do {
        old = _queue->copyObjectReference();
    } while (!_queue->setObjectReference(queue, old));
    if (old)
        static_cast<CXDispatchQueue*>(old.get())->removeReceiver(CXRef(this));
    if (queue)
        queue->addReceiver(CXRef(this));
}

void CXDispatchReceiver::setMessageHandler(const Handler& handler)
{
    StoredHandler::store(handler, *_handler);
}

void CXDispatchReceiver::cancel()
{
    const CXRef<CXDispatchQueue> queue = this->queue();
    const uint32_t before = _cancelled.fetch_or(cancelRequested);
    if (!queue)
        _finishCancel();
    else if ((before & cancelRequested) == 0)
        queue->dispatchAsyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel,
                                  [self = CXRef(this)] { self->_finishCancel(); });
}

void CXDispatchReceiver::_finishCancel()
{
    if ((_cancelled.fetch_or(cancelDone) & cancelDone) != 0)
        return;
    _handler->setObjectReference(nullptr);
    if (const CXRef<CXDispatchQueue> queue = this->queue())
        queue->removeReceiver(CXRef(this));
    _queue->setObjectReference(nullptr);
}
