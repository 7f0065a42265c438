#include "Port.h"

#include "DescriptorWatcher.h"

#include <algorithm>

namespace dxr {

CXRef<Port> Port::init(size_t queueLimit)
{
    return CXRef<Port>::adopt(new Port(std::max<size_t>(queueLimit, 1), -1));
}

CXRef<Port> Port::initWithDescriptor(int descriptor)
{
    CXRef<Port> port = CXRef<Port>::adopt(new Port(1, descriptor));
    const auto sendEmptyMessage = [](CXObject& client) { static_cast<Port&>(client).send({}); };
    return DescriptorWatcher::shared().watch(descriptor, port, sendEmptyMessage) ? port : nullptr;
}

Port::Port(size_t queueLimit, int descriptor) : _queueLimit(queueLimit), _descriptor(descriptor) {}

Port::~Port()
{
    if (_descriptor >= 0)
        DescriptorWatcher::shared().forget(_descriptor, *this);
}

Port::SendResult Port::send(std::span<const std::byte> message)
{
    CXRef<PortOwner> owner;
    {
        const std::scoped_lock lock(_mutex);
        if (_isClosed)
            return SendResult::Closed;
        if (_messages.size() >= _queueLimit)
            return SendResult::Full;
        _messages.emplace_back(message.begin(), message.end());
        owner = _owner;
    }
    if (owner)
        owner->portHasMessage(*this);
    return SendResult::Sent;
}

void Port::close()
{
    if (_descriptor >= 0)
        DescriptorWatcher::shared().forget(_descriptor, *this);
    const std::scoped_lock lock(_mutex);
    _isClosed = true;
    _messages.clear();
}

CXRef<CXObject> Port::context() const
{
    const std::scoped_lock lock(_mutex);
    return _context;
}

void Port::setContext(CXRef<CXObject> context)
{
    {
        const std::scoped_lock lock(_mutex);
        std::swap(_context, context);
    }
    // The old context is released here, without the lock: its destructor may call this port.
}

void Port::messageHandled()
{
    if (_descriptor >= 0)
        DescriptorWatcher::shared().rearm(_descriptor, *this);
}

bool Port::_join(CXRef<PortOwner> owner)
{
    const std::scoped_lock lock(_mutex);
    std::swap(_owner, owner);
    return !_messages.empty();
}

bool Port::_belongsTo(const PortOwner& owner) const
{
    const std::scoped_lock lock(_mutex);
    return _owner.get() == &owner;
}

std::optional<Port::Message> Port::_take(const PortOwner& owner, bool& hasMore)
{
    const std::scoped_lock lock(_mutex);
    if (_owner.get() != &owner || _messages.empty())
        return std::nullopt;
    Message message = std::move(_messages.front());
    _messages.pop_front();
    hasMore = !_messages.empty();
    return message;
}

} // namespace dxr
