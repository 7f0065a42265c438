#pragma once

#include <cstdint>
#include <random>

/// Numbers that are the same in every run: give it a fixed seed.
class Random : public std::mt19937 {
public:
    using std::mt19937::mt19937;
    /// 0 to bound - 1.
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>((*this)() % bound); }
    /// Between the two.
    template <class Real> Real between(Real low, Real high)
    {
        return std::uniform_real_distribution<Real>(low, high)(*this);
    }
};
