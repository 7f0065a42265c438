#include "DXRAudioIOContext.h"

#include "DeviceClock.h"
#include "Futex.h"
#include "HALHardwareDriver.h"
#include "HostClock.h"

using dxr::Futex;

namespace {

// How long a cycle waits for its turn: much longer than work of the queue takes. The limit ends a deadlock in
// which that work waits for the hardware, and the hardware for this cycle.
constexpr uint64_t turnTimeoutTicks =
    500'000'000 * dxr::HostClock::nanosecondsDenominator / dxr::HostClock::nanosecondsNumerator;

} // namespace

CXRef<DXRAudioIOContext> DXRAudioIOContext::init()
{
    return CXRef<DXRAudioIOContext>::adopt(new DXRAudioIOContext);
}

DXRAudioIOContext::DXRAudioIOContext()
    : clock(std::make_unique<DeviceClock>()), isOnHostClock(HALHardwareIsOnHostClock())
{}

DXRAudioIOContext::~DXRAudioIOContext() = default;

bool DXRAudioIOContext::enter() noexcept
{
    uint32_t nobody = 0;
    return unsafe.compare_exchange_strong(nobody, 1);
}

void DXRAudioIOContext::waitForTurn(CXDispatchQueue& queue) noexcept
{
    _turn.store(Waiting);
    queue.dispatchAsync(CXDispatchHousekeepingLane, turn);
    if (unsafe.load() >= 2)
        _abandonTurn();
    const CXRealtimeExemption exemption("the queue is busy, and it is what keeps cycles and changes apart");
    const uint64_t deadline = dxr::HostClock::nowTicks() + turnTimeoutTicks;
    for (uint32_t seen = _turn.load(); seen == Waiting || seen == Running; seen = _turn.load()) {
        const bool isInTime = Futex::wait(_turn, seen, seen == Waiting ? deadline : Futex::noDeadline);
        if (!isInTime && _abandonTurn())
            return;
    }
}

bool DXRAudioIOContext::claimTurn() noexcept
{
    uint32_t waiting = Waiting;
    return _turn.compare_exchange_strong(waiting, Running);
}

void DXRAudioIOContext::finishTurn() noexcept
{
    // The record outlives the wake-up: the work that calls this function holds a reference.
    _turn.store(Done);
    Futex::wakeOne(&_turn);
}

bool DXRAudioIOContext::_abandonTurn() noexcept
{
    uint32_t waiting = Waiting;
    return _turn.compare_exchange_strong(waiting, Abandoned);
}

bool DXRAudioIOContext::stopCycles() noexcept
{
    if (unsafe.fetch_add(1) == 0)
        return true;
    if (_abandonTurn())
        Futex::wakeOne(&_turn);
    return false;
}

void DXRAudioIOContext::forgetWork()
{
    turn = nullptr;
    ending = nullptr;
}
