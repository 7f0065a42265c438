#include "Reply.h"

namespace dxr {

namespace {

thread_local AdaptiveSpin spin __attribute__((tls_model("initial-exec")));

} // namespace

void Reply::wait() noexcept
{
    if (spin.watch([this] { return _state.load(std::memory_order_acquire) == sent; }))
        return;
    uint32_t state = pending;
    if (!_state.compare_exchange_strong(state, sleeping))
        return;
    while (_state.load(std::memory_order_acquire) != sent)
        Futex::wait(_state, sleeping);
}

void Reply::send() noexcept
{
    std::atomic<uint32_t>* const address = &_state;
    if (address->exchange(sent) == sleeping)
        Futex::wakeOne(address);
}

} // namespace dxr
