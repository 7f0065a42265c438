#include "_multiplyRatio.h"

uint64_t _multiplyRatio(uint64_t value, uint32_t multiplier, uint32_t divisor) noexcept
{
    if (multiplier == divisor)
        return value;
    if (divisor == 0)
        return 0;
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>(static_cast<Wide>(value) * multiplier / divisor);
}
