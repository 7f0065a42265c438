#pragma once

#include "CXBlock.h"
#include "CXDispatchSource.h"

#include <atomic>
#include <cstdint>

/// Fires its handler on a queue, once or again and again.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: the getters; arming from the queue itself, so a handler may arm its own timer again.
class DXR_EXPORT CXDispatchTimer final : public CXDispatchSource {
public:
    using Handler = CXBlock<void(const CXRef<CXDispatchTimer>&)>;

    static CXRef<CXDispatchTimer> init();

    Handler handler() const;
    /// When to fire first, in host ticks; 0: one interval from when it is scheduled.
    uint64_t deadline() const noexcept override { return _deadline.load(); }
    /// How often after that, in host ticks; 0: never again.
    uint64_t interval() const noexcept override { return _interval.load(); }

    /// Fires at `deadline` and then every `interval`, both in host ticks and 0 for none. Periods missed are
    /// left out. Replaces what was set before.
    void setTimeoutAbsolute(uint64_t deadline, uint64_t interval);
    void setTimeoutHandler(const Handler& handler);

private:
    CXDispatchTimer() = default;
    ~CXDispatchTimer() override = default;

    void call(std::span<const std::byte> message) override;
    void _enter(CXDispatchQueue& queue) override;
    void _leave(CXDispatchQueue& queue) override;

    std::atomic<uint64_t> _deadline{0};
    std::atomic<uint64_t> _interval{0};
};
