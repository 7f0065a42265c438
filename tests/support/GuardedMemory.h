#pragma once

#include <cstddef>
#include <new>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

/// Memory that ends or begins at an inaccessible page: an access beyond that end crashes the test.
class GuardedMemory {
public:
    enum class Guard { Behind, Before };

    /// `byteSize` zeroed bytes, adjacent to the inaccessible page on the side that `guard` selects.
    GuardedMemory(size_t byteSize, Guard guard) : _byteSize(byteSize)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usable = (byteSize + page - 1) / page * page;
        _mappedSize = usable + page;
        _mapping = mmap(nullptr, _mappedSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        auto* const bytes = static_cast<std::byte*>(_mapping);
        const bool isBehind = guard == Guard::Behind;
        if (_mapping == MAP_FAILED || mprotect(isBehind ? bytes + usable : bytes, page, PROT_NONE) != 0)
            throw std::bad_alloc();
        _begin = isBehind ? bytes + usable - byteSize : bytes + page;
    }
    ~GuardedMemory() { munmap(_mapping, _mappedSize); }
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
