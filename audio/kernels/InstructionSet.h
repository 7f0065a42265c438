#pragma once

#include "CXRealtime.h"

#include <span>

struct PolyphaseKernels;
struct SampleKernels;
struct SamplerKernels;

/// The inner loops for one instruction set. All sets give bit-identical results and differ only in speed.
/// Threads:   any.
/// Real time: yes.
struct InstructionSet {
    const char* name;
    const SamplerKernels* sampler;
    const SampleKernels* samples;
    const PolyphaseKernels* polyphase;
};

/// The sets that this processor supports, the most basic first. Never empty.
std::span<const InstructionSet> availableInstructionSets() noexcept CX_REALTIME;
/// The set in use: the last available one unless useInstructionSet() was called.
const InstructionSet& instructionSet() noexcept CX_REALTIME;
/// Selects an available set for the whole process; for tests and benchmarks.
void useInstructionSet(const InstructionSet& set) noexcept;
