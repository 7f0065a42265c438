#include "TFA.h"

#include "AtomicStackPair.h"
#include "BackOff.h"
#include "PageMapping.h"
#include "TFASpentBlocks.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>
#include <utility>

namespace {

using dxr::AtomicStack;
using dxr::AtomicStackPair;
using dxr::PageMapping;

// Blocks of up to 4096 bytes share 16 KiB chunks. A chunk is aligned to its size; its first word holds the
// size class, and the first block is at offset 16. A larger block has its own mapping, one page longer than
// the block, and its class is in the word before the block. So a block on a page boundary is always a large
// one; positions in a chunk where a small block would begin on a page boundary are not used.
constexpr size_t chunkSize = 16384;
constexpr size_t pageSize = 4096;
constexpr size_t firstBlockOffset = 16;
constexpr size_t smallestRequest = 16;
constexpr unsigned largestSmallClass = 12; // 4096 bytes
constexpr unsigned classCount = 64;
// Chunks are taken from larger regions, so that a request for a chunk rarely enters the kernel, and a process
// with many chunks does not exceed the kernel's limit on mappings (65,530 by default).
constexpr size_t chunksPerRegion = 64;
// The pages of a new large block are made present in one call, because an IO thread would otherwise take a
// page fault for each. Above this size that could waste memory, and only TFA_reserve does it.
constexpr size_t maxBytesMadePresent = size_t{256} * 1024;

// The free blocks of each class; blocks of class k hold 2^k bytes.
constinit AtomicStackPair gAllocationQueues[classCount];
// For each class, the first block of its newest chunk that was never used; 0 if all were used. A thread takes
// the block by exchanging it for the next one. A chunk stays with its class, so an address never reappears
// here. Release and acquire: the chunk's first word is written before its blocks are visible.
constinit std::atomic<uintptr_t> gUnusedBlocks[largestSmallClass + 1] = {};
// The address of the next unused chunk of the newest region, a multiple of the chunk size, plus the number of
// unused chunks. Taking one adds the chunk size and subtracts 1.
constinit std::atomic<uintptr_t> gUnusedChunks{0};
// The stack that this thread uses for each class. Initial-exec, because an IO thread's first access must not
// allocate.
constinit thread_local AtomicStackPair::Side gSides[classCount]
    __attribute__((tls_model("initial-exec"))) = {};

/// The blocks that this thread freed last. Their number is chosen so that one block can be fetched from
/// another processor's cache in the time that so many pops take.
struct Latest {
    static constexpr unsigned count = 4;
    void* blocks[count];
    unsigned next;
};
constinit thread_local Latest gLatest __attribute__((tls_model("initial-exec"))) = {};

/// Returns the class of a request: the bit length of size - 1, at least 4. Returns 64 if no class is large
/// enough.
constexpr unsigned classOf(size_t size) noexcept
{
    return static_cast<unsigned>(std::bit_width((std::max<size_t>(size, 1) - 1) | (smallestRequest - 1)));
}

constexpr size_t blockSize(unsigned sizeClass) noexcept
{
    return size_t{1} << sizeClass;
}

/// Returns the address of the word that holds the class of `block`.
uint64_t* headerOf(const void* block) noexcept
{
    const auto address = reinterpret_cast<uintptr_t>(block);
    return reinterpret_cast<uint64_t*>(address % pageSize != 0 ? address & ~(chunkSize - 1)
                                                               : address - sizeof(uint64_t));
}

/// Prepares a block for a list. `later` is a block that this thread has freed recently, which will be popped
/// after this one.
AtomicStack::Link* linkForBlock(void* block) noexcept
{
    auto* const link = new (block) AtomicStack::Link;
    link->later = std::exchange(gLatest.blocks[gLatest.next++ % Latest::count], block);
    return link;
}

AtomicStack::Link* popBlock(unsigned sizeClass) noexcept
{
    return gAllocationQueues[sizeClass].pop(gSides[sizeClass]);
}

void pushBlocks(unsigned sizeClass, AtomicStack::Link* first, AtomicStack::Link* last) noexcept
{
    gAllocationQueues[sizeClass].pushChain(first, last, gSides[sizeClass]);
}

/// Writes directly to the descriptor, because the C library may have no memory for its buffers.
void reportFailure(const char* call, size_t mappingSize, size_t requestedSize, int error) noexcept
{
    char line[192];
    const int length = std::snprintf(
        line, sizeof line, "Threadsafe Fast Allocator: %s(%lu) for requested size %lu failed with error %d\n",
        call, mappingSize, requestedSize, error);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
}

enum class Pages { PresentWhenSmall, Present };

/// Creates a large block that is on no list. On failure reports it and returns null.
void* newLargeBlock(unsigned sizeClass, size_t requestedSize, Pages pages) noexcept
{
    if (sizeClass >= classCount) {
        reportFailure("vm_allocate", SIZE_MAX, requestedSize, ENOMEM);
        return nullptr;
    }
    const size_t mappingSize = blockSize(sizeClass) + pageSize;
    const bool present = pages == Pages::Present || mappingSize <= maxBytesMadePresent;
    const PageMapping::Result mapping =
        PageMapping::map(mappingSize, present ? PageMapping::Touch::Now : PageMapping::Touch::Later);
    if (!mapping.address) {
        reportFailure("vm_allocate", mappingSize, requestedSize, mapping.error);
        return nullptr;
    }
    std::byte* const block = mapping.address + pageSize;
    *headerOf(block) = sizeClass;
    return block;
}

/// Returns a new chunk for the caller, its pages not yet present. On failure reports it and returns null.
std::byte* newChunk(size_t requestedSize) noexcept
{
    constexpr size_t regionSize = chunksPerRegion * chunkSize;
    uintptr_t unused = gUnusedChunks.load();
    for (dxr::BackOff backOff;; backOff.wait()) {
        if (const uintptr_t left = unused % chunkSize; left > 0) {
            if (gUnusedChunks.compare_exchange_strong(unused, unused + chunkSize - 1))
                return reinterpret_cast<std::byte*>(unused - left); // NOLINT: an address and a count
            continue;
        }
        const PageMapping::Result region = PageMapping::mapAligned(regionSize, chunkSize);
        if (!region.address)
            break;
        const auto start = reinterpret_cast<uintptr_t>(region.address);
        if (gUnusedChunks.compare_exchange_strong(unused, start + chunkSize + chunksPerRegion - 1))
            return region.address;
        PageMapping::unmap(region.address, regionSize); // another thread has added a region
    }
    // The system may still have memory for a single chunk.
    const PageMapping::Result chunk = PageMapping::mapAligned(chunkSize, chunkSize);
    if (!chunk.address)
        reportFailure("vm_allocate", chunkSize, requestedSize, chunk.error);
    return chunk.address;
}

/// Returns the block after `block` in its chunk, or 0 if it is the last.
uintptr_t blockAfter(uintptr_t block, size_t size) noexcept
{
    size_t offset = block % chunkSize + size;
    if (offset % pageSize == 0)
        offset += size; // would look like a large block
    return offset + size <= chunkSize ? block - block % chunkSize + offset : 0;
}

/// Blocks linked from first to last, in ascending order of addresses.
struct Chain {
    AtomicStack::Link* first = nullptr;
    AtomicStack::Link* last = nullptr;
    size_t count = 0;
};

/// Links `block` and all blocks after it in its chunk.
Chain chainFrom(uintptr_t block, size_t size) noexcept
{
    Chain chain;
    for (; block != 0; block = blockAfter(block, size)) {
        auto* const link = new (reinterpret_cast<void*>(block)) AtomicStack::Link{nullptr, nullptr}; // NOLINT
        if (chain.last)
            chain.last->linkTo(link);
        else
            chain.first = link;
        chain.last = link;
        ++chain.count;
    }
    return chain;
}

/// Assigns a chunk to a class. Returns the address of its first block.
uintptr_t assignChunk(std::byte* chunk, unsigned sizeClass) noexcept
{
    *reinterpret_cast<uint64_t*>(chunk) = sizeClass;
    return reinterpret_cast<uintptr_t>(chunk) + firstBlockOffset;
}

/// Takes the next unused block of the class's newest chunk; null if none is left. Called only if the class's
/// list is empty, so blocks are returned in the same order as if all blocks of the chunk had been on the list
/// from the start.
void* takeUnusedBlock(unsigned sizeClass) noexcept
{
    std::atomic<uintptr_t>& unused = gUnusedBlocks[sizeClass];
    uintptr_t block = unused.load(std::memory_order_acquire);
    for (dxr::BackOff backOff; block != 0; backOff.wait()) {
        if (unused.compare_exchange_strong(block, blockAfter(block, blockSize(sizeClass)),
                                           std::memory_order_acq_rel, std::memory_order_acquire))
            break;
    }
    return reinterpret_cast<void*>(block); // NOLINT: an address or 0
}

/// Allocates a block when the class's list is empty. Not inlined into TFA_malloc(), which would then have to
/// save registers.
[[gnu::noinline]] void* newBlock(unsigned sizeClass, size_t requestedSize) noexcept
{
    if (sizeClass > largestSmallClass)
        return newLargeBlock(sizeClass, requestedSize, Pages::PresentWhenSmall);
    if (void* const block = takeUnusedBlock(sizeClass))
        return block;
    std::byte* const chunk = newChunk(requestedSize);
    if (!chunk)
        return nullptr;
    const uintptr_t first = assignChunk(chunk, sizeClass);
    const uintptr_t second = blockAfter(first, blockSize(sizeClass));
    uintptr_t none = 0;
    if (!gUnusedBlocks[sizeClass].compare_exchange_strong(none, second, std::memory_order_release,
                                                          std::memory_order_relaxed)) {
        // Another thread has added a chunk to this class meanwhile, and gUnusedBlocks can refer to only one.
        const Chain chain = chainFrom(second, blockSize(sizeClass));
        pushBlocks(sizeClass, chain.first, chain.last);
    }
    return reinterpret_cast<void*>(first); // NOLINT: an address
}

/// Creates the blocks of a chunk, or one large block, with all pages present. On failure reports it and
/// returns an empty chain.
Chain newPresentBlocks(unsigned sizeClass, size_t requestedSize) noexcept
{
    if (sizeClass > largestSmallClass) {
        void* const block = newLargeBlock(sizeClass, requestedSize, Pages::Present);
        if (!block)
            return {};
        auto* const link = new (block) AtomicStack::Link{nullptr, nullptr};
        return {link, link, 1};
    }
    std::byte* const chunk = newChunk(requestedSize);
    if (!chunk)
        return {};
    if (!PageMapping::makePresent(chunk, chunkSize)) {
        reportFailure("vm_allocate", chunkSize, requestedSize, errno);
        return {}; // the chunk is not reused; the system has no memory for it
    }
    return chainFrom(assignChunk(chunk, sizeClass), blockSize(sizeClass));
}

/// Returns the class of an allocated block; ends the process if its header was overwritten.
unsigned checkedClassOf(const void* block) noexcept
{
    const uint64_t sizeClass = *headerOf(block);
    if (sizeClass == 0 || sizeClass >= classCount)
        std::abort();
    return static_cast<unsigned>(sizeClass);
}

} // namespace

void* TFA_malloc(size_t size) noexcept
{
    const unsigned sizeClass = classOf(size);
    if (sizeClass < classCount) {
        if (void* const block = popBlock(sizeClass))
            return block;
    }
    return newBlock(sizeClass, std::max<size_t>(size, 1));
}

void TFA_free(void* pointer) noexcept
{
    if (!pointer)
        return;
    const unsigned sizeClass = checkedClassOf(pointer);
    AtomicStack::Link* const link = linkForBlock(pointer);
    pushBlocks(sizeClass, link, link);
}

void TFASpentBlocks::add(void* block) noexcept
{
    AtomicStack::Link* const link = linkForBlock(block);
    link->linkTo(static_cast<AtomicStack::Link*>(_first));
    _first = link;
    if (!_last)
        _last = link;
    if (++_count == maxBlocks)
        giveBack();
}

void TFASpentBlocks::giveBack() noexcept
{
    if (!_first)
        return;
    pushBlocks(checkedClassOf(_first), static_cast<AtomicStack::Link*>(_first),
               static_cast<AtomicStack::Link*>(_last));
    _first = nullptr;
    _last = nullptr;
    _count = 0;
}

void* TFA_calloc(size_t count, size_t size) noexcept
{
    void* const block = TFA_malloc(count * size);
    if (block)
        std::memset(block, 0, count * size);
    return block;
}

void* TFA_realloc(void* pointer, size_t size) noexcept
{
    const size_t oldSize = TFA_malloc_size(pointer);
    const size_t newSize = TFA_malloc_good_size(size);
    if (oldSize == newSize)
        return pointer;
    void* const block = TFA_malloc(newSize == 0 ? size : newSize); // 0: too large, and TFA_malloc fails
    if (!block)
        return nullptr;
    if (pointer) {
        std::memcpy(block, pointer, std::min(oldSize, newSize));
        TFA_free(pointer);
    }
    return block;
}

void* TFA_reallocf(void* pointer, size_t size) noexcept
{
    void* const block = TFA_realloc(pointer, size);
    if (!block)
        std::free(pointer); // NOLINT: kept for compatibility, see the header
    return block;
}

size_t TFA_malloc_size(const void* pointer) noexcept
{
    const uint64_t sizeClass = pointer ? *headerOf(pointer) : 0;
    return sizeClass == 0 || sizeClass >= classCount ? 0 : blockSize(static_cast<unsigned>(sizeClass));
}

size_t TFA_malloc_good_size(size_t size) noexcept
{
    const unsigned sizeClass = classOf(size);
    return sizeClass < classCount ? blockSize(sizeClass) : 0;
}

void* TFA_valloc(size_t size) noexcept
{
    return TFA_malloc(std::max(size, 2 * pageSize)); // small blocks are never page-aligned
}

bool TFA_reserve(size_t size, size_t count) noexcept
{
    const unsigned sizeClass = classOf(size);
    for (size_t added = 0; added < count;) {
        const Chain chain = newPresentBlocks(sizeClass, size);
        if (chain.count == 0)
            return false;
        pushBlocks(sizeClass, chain.first, chain.last);
        added += chain.count;
    }
    return true;
}

namespace {

void* TFACFAllocate(long size, unsigned long /*hint*/, void* /*info*/) noexcept
{
    return TFA_malloc(static_cast<size_t>(size));
}

void* TFACFReallocate(void* pointer, long newSize, unsigned long /*hint*/, void* /*info*/) noexcept
{
    return pointer && newSize != 0 ? TFA_realloc(pointer, static_cast<size_t>(newSize)) : nullptr;
}

void TFACFDeallocate(void* pointer, void* /*info*/) noexcept
{
    TFA_free(pointer);
}

long TFACFPreferredSize(long size, unsigned long /*hint*/, void* /*info*/) noexcept
{
    return static_cast<long>(TFA_malloc_good_size(static_cast<size_t>(size)));
}

constinit const CXAllocatorCallbacks fastAllocator{
    0, nullptr, TFACFAllocate, TFACFReallocate, TFACFDeallocate, TFACFPreferredSize};

} // namespace

constinit const CXAllocatorCallbacks* const CXTFACFAllocator = &fastAllocator;
