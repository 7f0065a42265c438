#include "CXDispatchQueue.h"

#include "CXDispatchDrain.h"
#include "CXDispatchMember.h"
#include "CXDispatchTimerList.h"
#include "HostClock.h"
#include "PortSet.h"
#include "Reply.h"
#include "Thread.h"

#include <system_error>

using dxr::HostClock;
using dxr::PortSet;
using Borrow = CXDispatchDrain::Borrow;
using RunBy = CXDispatchDrain::RunBy;

namespace {

constexpr uint32_t laneMask = 0xFF;
constexpr uint32_t cancelRequested = 1;
constexpr uint32_t cancelFinished = 2;

void assertThat(bool condition, long line)
{
    if (!condition)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", line);
}

} // namespace

// --- Life ---

CXRef<CXDispatchQueue> CXDispatchQueue::initWithName(std::optional<std::string> name)
{
    CXDispatchDrain::reserveItems();
    CXRef<CXDispatchQueue> queue = CXRef<CXDispatchQueue>::adopt(new CXDispatchQueue(std::move(name)));
    dxr::Reply started;
    try {
        dxr::Thread(queue->_name.value_or("CXDispatchQueue"), [queue, &started] {
            queue->_drain->threadBegins();
            started.send();
            queue->_workloop();
        }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    started.wait();
    return queue;
}

CXDispatchQueue::CXDispatchQueue(std::optional<std::string> name)
    : _name(std::move(name)), _portset(PortSet::init()), _drain(std::make_unique<CXDispatchDrain>(*_portset)),
      _timers(std::make_unique<CXDispatchTimerList>())
{}

CXDispatchQueue::~CXDispatchQueue()
{
    assertThat(owner() == 0, __LINE__);
    assertThat(_drain->isIdle(), __LINE__);
}

pthread_t CXDispatchQueue::owner() const noexcept
{
    return _drain->owner();
}

pthread_t CXDispatchQueue::thread() const noexcept
{
    return _drain->thread();
}

/// Handles one event and then the due timers, in turn: a timer that is always late and a port that always has
/// messages do not block each other.
void CXDispatchQueue::_workloop()
{
    while ((_cancelled.load() & cancelFinished) == 0) {
        switch (_portset->waitForEvent(_timers->firstDeadline())) {
        case PortSet::Event::Signal:
            _drain->runSignalled();
            break;
        case PortSet::Event::Message:
            _drain->takeAndRun([this] { _deliverMessage(); });
            break;
        case PortSet::Event::Timeout:
            break;
        }
        if (const uint64_t now = HostClock::nowTicks(); _timers->firstDeadline() <= now)
            _drain->takeAndRun([this, now] { _timers->fireDue(now); });
    }
    _drain->threadEnds();
}

void CXDispatchQueue::cancel()
{
    if ((_cancelled.fetch_or(cancelRequested) & cancelRequested) != 0)
        return;
    dispatchAsyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [self = CXRef(this)] {
        for (const CXRef<CXDispatchMember>& timer : self->_timers->timers())
            timer->cancel();
        // On the queue's thread, because if that thread is asleep while another one borrows the queue,
        // setting the bit there would not wake it.
        assertThat(self->_drain->async(CXDispatchClientLane, RunBy::QueueThread,
                                       [self] { self->_cancelled.fetch_or(cancelFinished); }),
                   __LINE__);
    });
}

void CXDispatchQueue::setRealTime()
{
    const auto step = [this] {
        if (pthread_self() == thread()) // otherwise it has ended
            _realTimeGrant.store(CXThreadSetRealtime());
    };
    if (!isDispatchedOnCurrentThread()) {
        _checkNotCancelled(0);
        _drain->sync(CXDispatchHousekeepingLane, RunBy::QueueThread, step);
    } else if (pthread_self() == thread()) {
        step();
    } else {
        assertThat(_drain->async(CXDispatchHousekeepingLane, RunBy::QueueThread, step), __LINE__);
    }
}

// --- Dispatching ---

void CXDispatchQueue::_checkLane(uint32_t flags) const
{
    assertThat((flags & laneMask) <= CXDispatchClientLane, __LINE__);
}

void CXDispatchQueue::_checkNotCancelled(uint32_t flags) const
{
    assertThat((flags & CXDispatchAfterCancel) != 0 || (_cancelled.load() & cancelRequested) == 0, __LINE__);
}

void CXDispatchQueue::_checkNotOwner() const
{
    assertThat(!isDispatchedOnCurrentThread(), __LINE__);
}

void CXDispatchQueue::dispatchSync(uint32_t flags, BorrowedWork block)
{
    _checkLane(flags);
    _checkNotCancelled(flags);
    _checkNotOwner();
    _drain->sync(flags & laneMask, RunBy::Anyone, block);
}

void CXDispatchQueue::dispatchAsync(uint32_t flags, const Work& block)
{
    _checkLane(flags);
    _checkNotCancelled(flags);
    assertThat(_drain->async(flags & laneMask, RunBy::Anyone, block), __LINE__);
}

bool CXDispatchQueue::dispatchSyncImmed(uint32_t flags, BorrowedWork block)
{
    const bool isHere = isDispatchedOnCurrentThread();
    if (block && isHere)
        block();
    else if (block)
        dispatchSync(flags, block);
    return isHere;
}

bool CXDispatchQueue::dispatchAsyncImmed(uint32_t flags, const Work& block)
{
    const bool isHere = isDispatchedOnCurrentThread();
    if (block && isHere)
        block();
    else if (block)
        dispatchAsync(flags, block);
    return isHere;
}

void CXDispatchQueue::dispatchSyncBypass(BorrowedWork block)
{
    _checkNotCancelled(0);
    _checkNotOwner();
    _drain->bypass(Borrow::UntilIdle, block);
}

void CXDispatchQueue::dispatchSyncBypassOnce(BorrowedWork block)
{
    _checkNotCancelled(0);
    _checkNotOwner();
    _drain->bypass(Borrow::Once, block);
}

bool CXDispatchQueue::dispatchSyncBypassOnceIfIdle(BorrowedWork block)
{
    _checkNotCancelled(0);
    _checkNotOwner();
    return _drain->bypassIfIdle(Borrow::Once, block);
}

// --- Receivers ---

void CXDispatchQueue::addReceiver(const CXRef<CXDispatchMember>& receiver)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        if (_isCancelled()) {
            receiver->cancel();
        } else if (const CXRef<dxr::Port> port = receiver->port()) {
            port->setContext(receiver);
            _portset->add(*port);
        }
    });
}

void CXDispatchQueue::removeReceiver(const CXRef<CXDispatchMember>& receiver)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        const CXRef<dxr::Port> port = receiver->port();
        if (!port || port->context() != receiver)
            return;
        _portset->remove(*port);
        port->setContext(nullptr);
    });
}

/// Called with the right, on the queue's thread. The message is taken only now, because until this thread
/// held the right, the receiver could move to another queue together with its messages.
void CXDispatchQueue::_deliverMessage() noexcept
{
    const std::optional<PortSet::Received> received = _portset->takeMessage();
    if (!received)
        return;
    if (const auto receiver = CXRefCast<CXDispatchMember>(received->port->context()))
        receiver->call(received->message);
    received->port->messageHandled();
}

// --- Timers ---

void CXDispatchQueue::addTimer(const CXRef<CXDispatchMember>& timer)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] {
        if (_isCancelled())
            timer->cancel();
        else if (_timers->add(timer))
            _drain->needThread();
    });
}

void CXDispatchQueue::removeTimer(const CXRef<CXDispatchMember>& timer)
{
    dispatchSyncImmed(CXDispatchHousekeepingLane | CXDispatchAfterCancel, [&] { _timers->remove(*timer); });
}

void CXDispatchQueue::updateTimer(const CXRef<CXDispatchMember>& timer)
{
    const auto update = [this, timer] {
        if (_timers->reschedule(*timer))
            _drain->needThread();
    };
    if (isDispatchedOnCurrentThread())
        update(); // creates no block, so a handler may do this on a real-time thread
    else
        dispatchAsync(CXDispatchHousekeepingLane | CXDispatchAfterCancel, update);
}
