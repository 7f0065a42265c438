#include "CXDispatchReceiver.h"

#include "CXDispatchQueue.h"
#include "CXStoredBlock.h"

namespace {

constexpr uint32_t makesOwnPort =
    CXDispatchReceiverReleasesSendRight | CXDispatchReceiverReleasesReceiveRight;

using StoredHandler = CXStoredBlock<void(const CXRef<CXDispatchReceiver>&, std::span<const std::byte>)>;

} // namespace

CXRef<CXDispatchReceiver> CXDispatchReceiver::init(const CXRef<dxr::Port>& port, uint32_t dealloc)
{
    CXRef<dxr::Port> own = port;
    if (!own && (dealloc & makesOwnPort) == makesOwnPort)
        own = dxr::Port::init();
    CXRef<CXDispatchReceiver> receiver =
        CXRef<CXDispatchReceiver>::adopt(new CXDispatchReceiver(std::move(own), dealloc));
    return receiver->isWhole() ? receiver : nullptr;
}

CXDispatchReceiver::CXDispatchReceiver(CXRef<dxr::Port> port, uint32_t disposition)
    : _port(std::move(port)), _disposition(disposition)
{}

CXDispatchReceiver::~CXDispatchReceiver()
{
    if (_port && (_disposition & CXDispatchReceiverReleasesReceiveRight) != 0)
        _port->close();
}

CXDispatchReceiver::Handler CXDispatchReceiver::handler() const
{
    return StoredHandler::load(storedHandler());
}

void CXDispatchReceiver::setMessageHandler(const Handler& handler)
{
    StoredHandler::store(handler, storedHandler());
}

void CXDispatchReceiver::call(std::span<const std::byte> message)
{
    if (const Handler handler = this->handler())
        handler(CXRef(this), message);
}

void CXDispatchReceiver::_enter(CXDispatchQueue& queue)
{
    queue.addReceiver(CXRef(this));
}

void CXDispatchReceiver::_leave(CXDispatchQueue& queue)
{
    queue.removeReceiver(CXRef(this));
}
