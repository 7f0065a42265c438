#pragma once

#include <cstddef>
#include <span>

/// Memory that ends or begins at an inaccessible page: an access beyond that end crashes the test.
class GuardedMemory {
public:
    enum class Guard { Behind, Before };

    /// `byteSize` zeroed bytes, adjacent to the inaccessible page on the side that `guard` selects.
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
