#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <mutex>

/// A plain implementation of two-level segregated fit (TLSF), an allocator used in real-time systems: good
/// fit with two levels of bit maps; allocation splits blocks, and release merges a block with both
/// neighbours. A mutex makes it thread-safe.
class TLSF {
public:
    TLSF(void* memory, size_t size)
    {
        auto* const block = static_cast<Block*>(memory);
        block->previous = nullptr;
        block->size = (size - 2 * headerSize) | freeBit;
        Block* const end = block->following();
        end->previous = block;
        end->size = 0; // never free
        _insert(block);
    }

    void* allocate(size_t size)
    {
        size = size < smallest ? smallest : (size + 15) & ~size_t{15};
        const std::scoped_lock lock(_mutex);
        Block* const block = _find(size);
        if (!block)
            return nullptr;
        _remove(block);
        if (block->length() >= size + headerSize + smallest) {
            Block* const after = block->following();
            const size_t rest = block->length() - size - headerSize;
            block->size = size;
            Block* const remainder = block->following();
            remainder->previous = block;
            remainder->size = rest | freeBit;
            after->previous = remainder;
            _insert(remainder);
        } else {
            block->size = block->length();
        }
        return block->payload();
    }

    void release(void* pointer)
    {
        Block* block = reinterpret_cast<Block*>(static_cast<char*>(pointer) - headerSize);
        const std::scoped_lock lock(_mutex);
        if (Block* const after = block->following(); after->isFree()) {
            _remove(after);
            block->size = block->length() + after->length() + headerSize;
        }
        if (Block* const before = block->previous; before && before->isFree()) {
            _remove(before);
            before->size = before->length() + block->length() + headerSize;
            block = before;
        }
        block->following()->previous = block;
        block->size = block->length() | freeBit;
        _insert(block);
    }

private:
    static constexpr size_t headerSize = 16;
    static constexpr size_t smallest = 16;
    static constexpr size_t freeBit = 1;
    static constexpr int secondBits = 5;
    static constexpr int seconds = 1 << secondBits;
    static constexpr int firstShift = secondBits + 4;
    static constexpr int firsts = 32;

    struct Block {
        Block* previous; // the block before this one in memory
        size_t size;     // payload size, and freeBit
        Block* nextFree; // stored in the payload, as previousFree
        Block* previousFree;

        size_t length() const { return size & ~size_t{15}; }
        bool isFree() const { return (size & freeBit) != 0; }
        char* payload() { return reinterpret_cast<char*>(this) + headerSize; }
        Block* following() { return reinterpret_cast<Block*>(payload() + length()); }
    };

    static void map(size_t size, int& first, int& second)
    {
        if (size < (size_t{1} << firstShift)) {
            first = 0;
            second = static_cast<int>(size >> 4);
        } else {
            const int top = static_cast<int>(std::bit_width(size)) - 1;
            second = static_cast<int>(size >> (top - secondBits)) ^ seconds;
            first = top - firstShift + 1;
        }
    }

    Block* _find(size_t size)
    {
        if (size >= (size_t{1} << firstShift))
            size += (size_t{1} << (std::bit_width(size) - 1 - secondBits)) - 1;
        int first = 0;
        int second = 0;
        map(size, first, second);
        uint32_t seconds_ = _secondMap[first] & (~0U << second);
        if (seconds_ == 0) {
            const uint32_t firsts_ = _firstMap & (first + 1 < 32 ? ~0U << (first + 1) : 0U);
            if (firsts_ == 0)
                return nullptr;
            first = std::countr_zero(firsts_);
            seconds_ = _secondMap[first];
        }
        return _lists[first][std::countr_zero(seconds_)];
    }

    void _insert(Block* block)
    {
        int first = 0;
        int second = 0;
        map(block->length(), first, second);
        Block*& head = _lists[first][second];
        block->previousFree = nullptr;
        block->nextFree = head;
        if (head)
            head->previousFree = block;
        head = block;
        _firstMap |= 1U << first;
        _secondMap[first] |= 1U << second;
    }

    void _remove(Block* block)
    {
        if (block->nextFree)
            block->nextFree->previousFree = block->previousFree;
        if (block->previousFree) {
            block->previousFree->nextFree = block->nextFree;
            return;
        }
        int first = 0;
        int second = 0;
        map(block->length(), first, second);
        _lists[first][second] = block->nextFree;
        if (block->nextFree)
            return;
        _secondMap[first] &= ~(1U << second);
        if (_secondMap[first] == 0)
            _firstMap &= ~(1U << first);
    }

    std::mutex _mutex;
    uint32_t _firstMap = 0;
    uint32_t _secondMap[firsts] = {};
    Block* _lists[firsts][seconds] = {};
};
