#pragma once

#include "CXRealtime.h"

/// Collects blocks of the fast allocator, all of one size, and frees them together with one exchange of the
/// list's head. Freeing each block separately would contend with threads that allocate that size.
/// Threads:   one at a time.
/// Real time: everything.
/// Owns:      the blocks, until giveBack().
class TFASpentBlocks {
public:
    TFASpentBlocks() noexcept = default;
    TFASpentBlocks(const TFASpentBlocks&) = delete;
    TFASpentBlocks& operator=(const TFASpentBlocks&) = delete;
    ~TFASpentBlocks() { giveBack(); }

    /// Adds a block instead of calling TFA_free. Frees all blocks when many have been added.
    void add(void* block) noexcept CX_REALTIME;
    /// Frees all blocks. The block added last is reused first, as if each had been freed separately.
    void giveBack() noexcept CX_REALTIME;

private:
    static constexpr unsigned maxBlocks = 64;

    void* _first = nullptr; // linked through their first words
    void* _last = nullptr;
    unsigned _count = 0;
};
