#pragma once

#include <cstdint>

namespace dxr {

/// What to do after a lost exchange on a word that several threads change: stay away for a moment, twice as
/// long each time, up to a bound that an IO thread can afford. Without it two threads that fight over one
/// cache line take five times as long.
/// Threads:   one each.
/// Real time: yes.
class BackOff {
public:
    /// `firstPauses` suits how long the faster thread goes on for: a word that is changed once in a while, or
    /// one that threads change again and again.
    explicit BackOff(uint32_t firstPauses = 8) noexcept : _pauses(firstPauses) {}

    void wait() noexcept
    {
        for (uint32_t i = 0; i < _pauses; ++i)
            pause();
        if (_pauses < maxPauses)
            _pauses *= 2;
    }

    /// Hints to the processor that this thread is spinning.
    static void pause() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("isb" ::: "memory");
#else
        asm volatile("" ::: "memory");
#endif
    }

private:
    static constexpr uint32_t maxPauses = 96;
    uint32_t _pauses;
};

} // namespace dxr
