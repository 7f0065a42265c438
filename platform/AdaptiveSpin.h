#pragma once

#include "BackOff.h"

#include <cstdint>

namespace dxr {

/// Spins on a condition for a short time before its thread sleeps: a reply that arrives while spinning saves
/// two context switches. Spins while that has succeeded recently. After several failures it spins only on
/// every 64th call: a thread whose replies are slow then spends almost no time spinning. Never spins on a
/// machine with one processor.
/// Threads:   one.
/// Real time: as `isReady`.
class AdaptiveSpin {
public:
    /// Polls `isReady` with at most `maxSpins` pauses. Returns true if it became true.
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
