#include "PortSet.h"

#include "HostClock.h"

#include <algorithm>

namespace dxr {

CXRef<PortSet> PortSet::init()
{
    return CXRef<PortSet>::adopt(new PortSet);
}

PortSet::Event PortSet::waitForEvent(uint64_t deadlineTicks)
{
    do {
        for (int turn = 0; turn < 2; ++turn) {
            const bool isSignals = std::exchange(_isSignalsTurn, !_isSignalsTurn);
            if (isSignals && _takeSignal())
                return Event::Signal;
            if (!isSignals && (_word.load(std::memory_order_relaxed) & hasMessages) != 0)
                return Event::Message;
        }
    } while (_sleepUntil(signalled | hasMessages, deadlineTicks));
    return Event::Timeout;
}

void PortSet::waitForSignal() noexcept
{
    while (!_takeSignal())
        _sleepUntil(signalled, Futex::noDeadline);
}

std::optional<PortSet::Received> PortSet::takeMessage()
{
    while ((_word.load(std::memory_order_relaxed) & hasMessages) != 0) {
        CXRef<Port> port;
        {
            const std::scoped_lock lock(_mutex);
            if (_ready.empty()) {
                _word.fetch_and(~hasMessages);
                return std::nullopt;
            }
            port = std::move(_ready.front());
            _ready.pop_front();
            if (_ready.empty())
                _word.fetch_and(~hasMessages);
        }
        bool hasMore = false;
        std::optional<Port::Message> message = port->_take(*this, hasMore);
        if (hasMore)
            portHasMessage(*port);
        if (message)
            return Received{std::move(port), std::move(*message)};
    }
    return std::nullopt;
}

bool PortSet::signal() noexcept
{
    const uint32_t before = _word.fetch_or(signalled);
    if ((before & closed) != 0)
        return false;
    if ((before & (sleeping | signalled)) == sleeping)
        Futex::wakeOne(&_word);
    return true;
}

bool PortSet::close()
{
    const uint32_t before = _word.fetch_or(closed);
    std::deque<CXRef<Port>> left;
    {
        const std::scoped_lock lock(_mutex);
        std::swap(left, _ready);
        _word.fetch_and(~hasMessages);
    }
    return (before & signalled) != 0;
}

void PortSet::add(Port& port)
{
    if (port._join(CXRef<PortOwner>(this)))
        portHasMessage(port);
}

void PortSet::remove(Port& port)
{
    if (port._belongsTo(*this))
        port._join(nullptr); // if it is in _ready, takeMessage() skips it
}

void PortSet::portHasMessage(Port& port)
{
    {
        const std::scoped_lock lock(_mutex);
        const CXRef<Port> ready(&port);
        if (std::ranges::find(_ready, ready) != _ready.end() || (_word.load() & closed) != 0)
            return;
        _ready.push_back(ready);
    }
    _raise(hasMessages);
}

bool PortSet::_takeSignal() noexcept
{
    return (_word.load(std::memory_order_relaxed) & signalled) != 0 &&
           (_word.fetch_and(~signalled) & signalled) != 0;
}

void PortSet::_raise(uint32_t bit) noexcept
{
    const uint32_t before = _word.fetch_or(bit);
    if ((before & sleeping) != 0 && (before & bit) == 0)
        Futex::wakeOne(&_word);
}

bool PortSet::_sleepUntil(uint32_t bits, uint64_t deadlineTicks) noexcept
{
    // Close to the deadline, spinning would make the thread late.
    constexpr uint64_t nearTicks = 50'000;
    const auto isUp = [&] { return (_word.load(std::memory_order_acquire) & bits) != 0; };
    const uint64_t now = deadlineTicks == Futex::noDeadline ? 0 : HostClock::nowTicks();
    if (deadlineTicks <= now)
        return isUp();
    if (now + nearTicks <= deadlineTicks && _spin.watch(isUp))
        return true;
    uint32_t word = _word.load();
    bool isInTime = true;
    while ((word & bits) == 0 && isInTime) {
        if ((word & sleeping) == 0) {
            if (_word.compare_exchange_strong(word, word | sleeping))
                word |= sleeping;
            continue;
        }
        isInTime = Futex::wait(_word, word, deadlineTicks);
        word = _word.load();
    }
    if ((word & sleeping) != 0)
        word = _word.fetch_and(~sleeping);
    return (word & bits) != 0;
}

} // namespace dxr
