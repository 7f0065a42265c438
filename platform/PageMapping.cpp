#include "PageMapping.h"

#include <cerrno>
#include <cstdint>
#include <sys/mman.h>

namespace dxr {

namespace {

constexpr size_t pageSize = 4096;

} // namespace

PageMapping::Result PageMapping::map(size_t byteSize, Touch touch) noexcept
{
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (touch == Touch::Now ? MAP_POPULATE : MAP_NORESERVE);
    void* const address = mmap(nullptr, byteSize, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (address == MAP_FAILED)
        return {nullptr, errno};
    return {static_cast<std::byte*>(address), 0};
}

PageMapping::Result PageMapping::mapAligned(size_t byteSize, size_t alignment) noexcept
{
    // Maps enough to contain an aligned block at any address, and unmaps the rest. The next mapping fills the
    // hole, and the kernel merges adjacent mappings.
    const size_t roomSize = byteSize + alignment - pageSize;
    const Result room = map(roomSize, Touch::Later);
    if (!room.address)
        return room;
    const size_t before = (alignment - reinterpret_cast<uintptr_t>(room.address) % alignment) % alignment;
    std::byte* const aligned = room.address + before;
    unmap(room.address, before);
    unmap(aligned + byteSize, roomSize - before - byteSize);
    madvise(aligned, byteSize, MADV_NOHUGEPAGE); // fails, harmlessly, on a kernel without huge pages
    return {aligned, 0};
}

bool PageMapping::makePresent(std::byte* address, size_t byteSize) noexcept
{
    if (madvise(address, byteSize, MADV_POPULATE_WRITE) == 0)
        return true;
    if (errno != EINVAL)
        return false;
    for (size_t offset = 0; offset < byteSize; offset += pageSize) { // for kernels before 5.14
        volatile std::byte& byte = address[offset];
        byte = byte;
    }
    return true;
}

void PageMapping::unmap(std::byte* address, size_t byteSize) noexcept
{
    if (byteSize > 0)
        munmap(address, byteSize);
}

} // namespace dxr
