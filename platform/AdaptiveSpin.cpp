#include "AdaptiveSpin.h"

#include <thread>

namespace dxr {

bool AdaptiveSpin::_isWorthwhile() noexcept
{
    static const bool isMultiprocessor = std::thread::hardware_concurrency() > 1;
    if (!isMultiprocessor)
        return false;
    return _misses < missesToStop || ++_skipped % waitsPerTrial == 0;
}

} // namespace dxr
