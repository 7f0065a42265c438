#include "GuardedMemory.h"

#include <new>
#include <sys/mman.h>
#include <unistd.h>

GuardedMemory::GuardedMemory(size_t byteSize, Guard guard) : _byteSize(byteSize)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t usable = (byteSize + page - 1) / page * page;
    _mappedSize = usable + page;
    _mapping = mmap(nullptr, _mappedSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (_mapping == MAP_FAILED)
        throw std::bad_alloc();
    auto* const bytes = static_cast<std::byte*>(_mapping);
    std::byte* const forbidden = guard == Guard::Behind ? bytes + usable : bytes;
    if (mprotect(forbidden, page, PROT_NONE) != 0)
        throw std::bad_alloc();
    _begin = guard == Guard::Behind ? bytes + usable - byteSize : bytes + page;
}

GuardedMemory::~GuardedMemory()
{
    munmap(_mapping, _mappedSize);
}
