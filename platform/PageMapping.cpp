#include "PageMapping.h"

#include <cerrno>
#include <cstdint>
#include <sys/mman.h>

namespace platform {

PageMapping::Result PageMapping::map(size_t byteSize, Touch touch) noexcept
{
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (touch == Touch::Now ? MAP_POPULATE : MAP_NORESERVE);
    void* const address = mmap(nullptr, byteSize, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (address == MAP_FAILED)
        return {nullptr, errno};
    return {static_cast<std::byte*>(address), 0};
}

PageMapping::Result PageMapping::moveToAlignment(std::byte* address, size_t alignment) noexcept
{
    // Room for one aligned stretch wherever the system puts it; what lies around that stretch goes back.
    const size_t roomSize = 2 * alignment;
    void* const room = mmap(nullptr, roomSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) {
        const int error = errno;
        munmap(address, alignment);
        return {nullptr, error};
    }
    auto* const start = static_cast<std::byte*>(room);
    const size_t before = (alignment - reinterpret_cast<uintptr_t>(start) % alignment) % alignment;
    std::byte* const aligned = start + before;
    const void* const moved =
        mremap(address, alignment, alignment, MREMAP_MAYMOVE | MREMAP_FIXED, static_cast<void*>(aligned));
    const int error = moved == MAP_FAILED ? errno : 0;
    if (error != 0) {
        munmap(address, alignment);
        munmap(start, roomSize);
        return {nullptr, error};
    }
    if (before > 0)
        munmap(start, before);
    munmap(aligned + alignment, roomSize - before - alignment);
    return {aligned, 0};
}

} // namespace platform
