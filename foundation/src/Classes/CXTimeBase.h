#pragma once

#include "CXRef.h"

#include <cstdint>

/// Converts between host ticks ("absolute time") and nanoseconds: nanoseconds = ticks * numerator /
/// denominator.
/// Threads:   immutable, any.
/// Real time: everything but creation.
class DXR_EXPORT CXTimeBase final : public CXObject {
public:
    /// Returns the process's shared instance. Never allocates.
    static CXRef<CXTimeBase> sharedTimeBase();
    /// Creates a separate instance with the host clock's ratio.
    static CXRef<CXTimeBase> init();
    /// Creates an instance with another ratio, for a clock other than the host's. Neither number may be 0.
    static CXRef<CXTimeBase> initWithRatio(uint32_t numerator, uint32_t denominator);

    /// Ticks per second.
    double absoluteFrequency() const noexcept { return _timeBaseAbsoluteFrequency; }
    /// The current time in host ticks.
    uint64_t absoluteTime() const noexcept CX_REALTIME;
    /// The current time in nanoseconds.
    uint64_t nanoseconds() const noexcept CX_REALTIME;
    /// Truncates the result; intermediate products do not overflow. Returns the low 64 bits if the result
    /// needs more.
    uint64_t nanosecondsFromAbsoluteTime(uint64_t ticks) const noexcept CX_REALTIME;
    /// Truncates and overflows in the same way.
    uint64_t absoluteTimeFromNanoseconds(uint64_t nanoseconds) const noexcept CX_REALTIME;

private:
    CXTimeBase(uint32_t numerator, uint32_t denominator) noexcept;
    ~CXTimeBase() override = default;

    const uint32_t _timeBaseToNanosNumerator;
    const uint32_t _timeBaseToNanosDenominator;
    const double _timeBaseAbsoluteFrequency;
};
