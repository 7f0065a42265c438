#pragma once

#include <cstddef>
#include <span>

/// Memory that ends, or begins, at an inaccessible page: a read or write past it ends the test.
class GuardedMemory {
public:
    enum class Guard { Behind, Before };

    /// `byteSize` bytes, zeroed, that touch the forbidden page on the side of `guard`.
    GuardedMemory(size_t byteSize, Guard guard);
    ~GuardedMemory();
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    template <class T> std::span<T> of() const noexcept
    {
        return {static_cast<T*>(_begin), _byteSize / sizeof(T)};
    }

private:
    void* _mapping;
    size_t _mappedSize;
    void* _begin;
    size_t _byteSize;
};
