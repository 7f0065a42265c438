#include "InstructionSet.h"

#include <atomic>

namespace {

// Null until the first use. Relaxed is sufficient: every thread that finds null stores the same value, and
// the sets are constants.
std::atomic<const InstructionSet*> chosen{nullptr};

} // namespace

const InstructionSet& instructionSet() noexcept
{
    const InstructionSet* set = chosen.load(std::memory_order_relaxed);
    if (!set) {
        set = &availableInstructionSets().back();
        chosen.store(set, std::memory_order_relaxed);
    }
    return *set;
}

void useInstructionSet(const InstructionSet& set) noexcept
{
    chosen.store(&set, std::memory_order_relaxed);
}
