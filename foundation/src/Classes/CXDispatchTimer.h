#pragma once

#include "CXBlock.h"
#include "CXDispatchSource.h"

#include <atomic>
#include <cstdint>

/// Calls its handler on a queue at a deadline, once or repeatedly.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: the getters; setting the timeout on the queue itself, so a handler may set its own timer again.
class DXR_EXPORT CXDispatchTimer final : public CXDispatchSource {
public:
    using Handler = CXBlock<void(const CXRef<CXDispatchTimer>&)>;

    static CXRef<CXDispatchTimer> init();

    Handler handler() const;
    /// When the timer fires first, in host ticks; 0: one interval after it is scheduled.
    uint64_t deadline() const noexcept override { return _deadline.load(); }
    /// The interval at which it fires after that, in host ticks; 0: fires only once.
    uint64_t interval() const noexcept override { return _interval.load(); }

    /// Fires at `deadline` and then every `interval`, both in host ticks; 0 means none. Missed periods are
    /// skipped. Replaces the previous timeout.
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
