#pragma once

#include <cstddef>
#include <new>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

/// Memory between two inaccessible pages: an access beyond the end that adjoins one crashes the test.
class GuardedMemory {
public:
    enum class Guard { Behind, Before };

    /// `byteSize` zeroed bytes, adjacent to the inaccessible page on the side that `guard` selects.
    GuardedMemory(size_t byteSize, Guard guard) : _byteSize(byteSize)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usable = (byteSize + page - 1) / page * page;
        _mappedSize = usable + 2 * page;
        _mapping = mmap(nullptr, _mappedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        auto* const bytes = static_cast<std::byte*>(_mapping) + page;
        if (_mapping == MAP_FAILED || mprotect(bytes, usable, PROT_READ | PROT_WRITE) != 0)
            throw std::bad_alloc();
        _begin = guard == Guard::Behind ? bytes + usable - byteSize : bytes;
    }
    ~GuardedMemory() { munmap(_mapping, _mappedSize); }
    GuardedMemory(const GuardedMemory&) = delete;

    template <class T> std::span<T> of() const noexcept
    {
        return {static_cast<T*>(_begin), _byteSize / sizeof(T)};
    }

private:
    void *_mapping, *_begin;
    size_t _mappedSize;
    const size_t _byteSize;
};
