#include "DenormalFlush.h"

namespace {

constexpr uint64_t flushToZero = uint64_t{1} << 24;

} // namespace

DenormalFlush::DenormalFlush() noexcept
{
    asm volatile("mrs %0, fpcr" : "=r"(_callersMode));
    asm volatile("msr fpcr, %0" : : "r"(_callersMode | flushToZero));
}

DenormalFlush::~DenormalFlush()
{
    asm volatile("msr fpcr, %0" : : "r"(_callersMode));
}
