#include "DenormalFlush.h"

#include <xmmintrin.h>

namespace {

constexpr uint32_t flushToZero = 0x8000, denormalsAreZero = 0x0040;

} // namespace

DenormalFlush::DenormalFlush() noexcept : _callersMode(_mm_getcsr())
{
    _mm_setcsr(static_cast<uint32_t>(_callersMode) | flushToZero | denormalsAreZero);
}

DenormalFlush::~DenormalFlush()
{
    // Exception flags that were raised meanwhile stay raised, as after any arithmetic.
    const uint32_t mode = _mm_getcsr() & ~(flushToZero | denormalsAreZero);
    _mm_setcsr(mode | (static_cast<uint32_t>(_callersMode) & (flushToZero | denormalsAreZero)));
}
