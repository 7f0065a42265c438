#pragma once

#include "CXRealtime.h"

#include <span>

struct PolyphaseKernels;
struct SampleKernels;
struct SamplerKernels;

/// One instruction set's inner loops. Every set gives the same bits; they differ in speed.
/// Threads:   any.
/// Real time: yes.
struct InstructionSet {
    const char* name;
    const SamplerKernels* sampler;
    const SampleKernels* samples;
    const PolyphaseKernels* polyphase;
};

/// The sets that this processor can run, the plainest first. Never empty.
std::span<const InstructionSet> availableInstructionSets() noexcept CX_REALTIME;
/// The set in use: the last available one, unless another was chosen.
const InstructionSet& instructionSet() noexcept CX_REALTIME;
/// Chooses an available set for the whole process: for tests and benchmarks.
void useInstructionSet(const InstructionSet& set) noexcept;
