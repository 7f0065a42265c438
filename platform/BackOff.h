#pragma once

#include <cstdint>

namespace platform {

/// What to do after a lost exchange on a word that several threads change: stay away for a moment, twice as
/// long each time, up to a bound that an IO thread can afford. Without it two threads that fight over one
/// cache line take five times as long.
/// Threads:   one each.
/// Real time: yes.
class BackOff {
public:
    void wait() noexcept
    {
        for (uint32_t i = 0; i < _pauses; ++i)
            pause();
        if (_pauses < mostPauses)
            _pauses *= 2;
    }

    /// Tells the processor that this thread is spinning.
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
    static constexpr uint32_t mostPauses = 64;
    uint32_t _pauses = 8;
};

} // namespace platform
