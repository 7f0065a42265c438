#include "InstructionSet.h"
#include "SampleKernels.h"
#include "SamplerKernels.h"

namespace {

constexpr InstructionSet sets[] = {{"base", &samplerKernels4, &sampleKernels4}}; // NEON on ARM

} // namespace

std::span<const InstructionSet> availableInstructionSets() noexcept
{
    return sets;
}
