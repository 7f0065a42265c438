#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// While it exists, floating-point operations on this thread treat denormal operands and results as zero. The
/// destructor restores the caller's mode. Has no effect on processors without such a mode.
/// Threads:   the thread that created it; nested objects are destroyed in reverse order.
/// Real time: yes.
class DenormalFlush {
public:
    DenormalFlush() noexcept CX_REALTIME;
    ~DenormalFlush();
    DenormalFlush(const DenormalFlush&) = delete;
    DenormalFlush& operator=(const DenormalFlush&) = delete;

private:
    uint64_t _callersMode = 0;
};
