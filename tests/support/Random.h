#pragma once

#include <cstdint>
#include <random>

/// Random numbers that are the same in every run; construct it with a fixed seed.
class Random : public std::mt19937 {
public:
    using std::mt19937::mt19937;
    /// 0 to bound - 1.
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>((*this)() % bound); }
    /// From `low` to `high`.
    template <class Real> Real between(Real low, Real high)
    {
        return std::uniform_real_distribution<Real>(low, high)(*this);
    }
};
