#include "InstructionSet.h"
#include "PolyphaseKernels.h"
#include "SampleKernels.h"
#include "SamplerKernels.h"

namespace {

constexpr InstructionSet sets[] = {{"base", &samplerKernels4, &sampleKernels4, &polyphaseKernels4}}; // NEON on ARM

} // namespace

std::span<const InstructionSet> availableInstructionSets() noexcept
{
    return sets;
}
