#pragma once

#include <cstdint>

namespace dxr {

/// Waits after a failed exchange on a word that several threads change. Each wait is twice as long as the one
/// before, up to a bound that an IO thread can afford. Without it, two threads that contend for one cache
/// line take five times as long.
/// Threads:   one object per thread.
/// Real time: yes.
class BackOff {
public:
    /// `firstPauses` should match how long the other thread keeps changing the word: small if it changes the
    /// word once in a while, larger if it changes it repeatedly.
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
