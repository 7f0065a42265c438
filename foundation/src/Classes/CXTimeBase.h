#pragma once

#include "CXRef.h"

#include <cstdint>

/// How long a host tick is. Absolute time counts host ticks; nanoseconds = ticks * numerator / denominator.
/// Threads:   immutable, any.
/// Real time: everything but creation.
class DXR_EXPORT CXTimeBase final : public CXObject {
public:
    /// The process's one instance. Never allocates.
    static CXRef<CXTimeBase> sharedTimeBase();
    /// One of its own over the host clock's ratio.
    static CXRef<CXTimeBase> init();
    /// One with another ratio: for a clock that is not the host's. Neither number is 0.
    static CXRef<CXTimeBase> initWithRatio(uint32_t numerator, uint32_t denominator);

    /// Ticks per second.
    double absoluteFrequency() const noexcept { return _timeBaseAbsoluteFrequency; }
    /// Now, in host ticks.
    uint64_t absoluteTime() const noexcept CX_REALTIME;
    /// Now, in nanoseconds.
    uint64_t nanoseconds() const noexcept CX_REALTIME;
    /// Cut towards zero, and exact however large the product; the low 64 bits where the result needs more.
    uint64_t nanosecondsFromAbsoluteTime(uint64_t ticks) const noexcept CX_REALTIME;
    /// Cut towards zero, as above.
    uint64_t absoluteTimeFromNanoseconds(uint64_t nanoseconds) const noexcept CX_REALTIME;

private:
    CXTimeBase(uint32_t numerator, uint32_t denominator) noexcept;
    ~CXTimeBase() override = default;

    const uint32_t _timeBaseToNanosNumerator;
    const uint32_t _timeBaseToNanosDenominator;
    const double _timeBaseAbsoluteFrequency;
};
