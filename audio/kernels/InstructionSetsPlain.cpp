#include "InstructionSet.h"
#include "SamplerKernels.h"

namespace {

constexpr InstructionSet sets[] = {{"base", &samplerKernels4}}; // NEON on ARM

} // namespace

std::span<const InstructionSet> availableInstructionSets() noexcept
{
    return sets;
}
