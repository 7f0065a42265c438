#pragma once

#include "BackOff.h"

#include <cstdint>

namespace dxr {

/// Whether watching a word for a moment before sleeping on it pays: a reply that comes within the moment
/// saves two trips through the scheduler. Watches while that has worked lately; when it has not, tries again
/// only once in a while, so that a thread which mostly sleeps costs next to nothing. Never watches on one
/// processor.
/// Threads: one.
/// Real time: as `isReady`.
class AdaptiveSpin {
public:
    /// Watches for at most about `maxSpins` pauses. Whether `isReady` became true.
    template <class Predicate> bool watch(Predicate isReady) noexcept
    {
        if (!_isWorthwhile())
            return false;
        for (uint32_t i = 0; i < maxSpins; ++i) {
            if (isReady()) {
                _misses = 0;
                return true;
            }
            BackOff::pause();
        }
        ++_misses;
        return false;
    }

private:
    static constexpr uint32_t maxSpins = 1500;
    static constexpr uint32_t missesToStop = 3;
    static constexpr uint32_t waitsPerTrial = 64;

    bool _isWorthwhile() noexcept;

    uint32_t _misses = 0;
    uint32_t _skipped = 0;
};

} // namespace dxr
