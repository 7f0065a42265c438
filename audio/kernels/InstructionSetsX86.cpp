#include "InstructionSet.h"
#include "PolyphaseKernels.h"
#include "SampleKernels.h"
#include "SamplerKernels.h"

extern const PolyphaseKernels polyphaseKernelsAVX2;
extern const PolyphaseKernels polyphaseKernelsAVX512;
extern const SampleKernels sampleKernelsAVX2;
extern const SampleKernels sampleKernelsAVX512;
extern const SamplerKernels samplerKernelsAVX2;
extern const SamplerKernels samplerKernelsAVX512;

namespace {

constexpr InstructionSet sets[] = {
    {"SSE2", &samplerKernels4, &sampleKernels4, &polyphaseKernels4},
    {"AVX2", &samplerKernelsAVX2, &sampleKernelsAVX2, &polyphaseKernelsAVX2},
    {"AVX-512", &samplerKernelsAVX512, &sampleKernelsAVX512, &polyphaseKernelsAVX512},
};

} // namespace

std::span<const InstructionSet> availableInstructionSets() noexcept
{
    __builtin_cpu_init(); // required if this runs before the constructor that calls it
    if (!__builtin_cpu_supports("avx2"))
        return std::span(sets).first(1);
    const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq");
    return std::span(sets).first(wide ? 3 : 2);
}
