#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// While it lives, floating-point operations of this thread take and give zero for denormals; then the
/// caller's mode is back. Does nothing on a processor without such a mode.
/// Threads:   the one that made it, in the reverse order of making.
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
