#pragma once

#include "CXRealtime.h"

/// Blocks of the fast allocator, all of one size, that go back together: one exchange of the list's head for
/// all of them, where freeing each alone would fight with threads that allocate that size.
/// Threads:   one at a time.
/// Real time: everything.
/// Owns:      the blocks, until giveBack().
class TFASpentBlocks {
public:
    TFASpentBlocks() noexcept = default;
    TFASpentBlocks(const TFASpentBlocks&) = delete;
    TFASpentBlocks& operator=(const TFASpentBlocks&) = delete;
    ~TFASpentBlocks() { giveBack(); }

    /// Takes a block instead of TFA_free. Gives them all back when they have become many.
    void add(void* block) noexcept CX_REALTIME;
    /// The block added last is the first to be used again, as if each had been freed.
    void giveBack() noexcept CX_REALTIME;

private:
    static constexpr unsigned maxBlocks = 64;

    void* _first = nullptr; // linked through their first words
    void* _last = nullptr;
    unsigned _count = 0;
};
