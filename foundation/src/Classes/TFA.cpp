#include "TFA.h"

#include "AtomicStack.h"
#include "PageMapping.h"
#include "TFASpentBlocks.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

using platform::AtomicStack;
using platform::PageMapping;

// Blocks of up to 4096 bytes share 16 KiB chunks; the first word of a chunk, which is aligned to its size,
// holds the class, and the first block follows at offset 16. A larger block has a mapping of its own, one
// page longer, and its class stands in the word before it. So a block on a page boundary is a large one, and
// the few places of a chunk where a small block would lie on one stay unused.
constexpr size_t chunkSize = 16384;
constexpr size_t pageSize = 4096;
constexpr size_t firstBlockOffset = 16;
constexpr size_t smallestRequest = 16;
constexpr unsigned largestSmallClass = 12; // 4096 bytes
constexpr unsigned classCount = 64;
// Touching a page for the first time costs an IO thread more than the block is worth, so new pages come
// present; above this size that would rather waste memory, and only TFA_reserve asks for it.
constexpr size_t mostBytesMadePresent = size_t{256} * 1024;

// The free blocks of every class: blocks of class k hold 2^k bytes. Nothing else is shared.
constinit AtomicStack gAllocationQueues[classCount];

/// The class of a request: the bit length of size - 1, 4 at least. 64 for what no class can hold.
constexpr unsigned classOf(size_t size) noexcept
{
    return static_cast<unsigned>(std::bit_width((std::max<size_t>(size, 1) - 1) | (smallestRequest - 1)));
}

constexpr size_t blockSize(unsigned sizeClass) noexcept
{
    return size_t{1} << sizeClass;
}

/// The word that holds the class of `block`.
uint64_t* headerOf(const void* block) noexcept
{
    const auto address = reinterpret_cast<uintptr_t>(block);
    return reinterpret_cast<uint64_t*>(address % pageSize != 0 ? address & ~(chunkSize - 1)
                                                               : address - sizeof(uint64_t));
}

/// Written with the C library's buffers out of the way: there may be no memory left for them.
void reportFailure(const char* call, size_t mappingSize, size_t requestedSize, int error) noexcept
{
    char line[192];
    const int length = std::snprintf(
        line, sizeof line, "Threadsafe Fast Allocator: %s(%lu) for requested size %lu failed with error %d\n",
        call, mappingSize, requestedSize, error);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
}

enum class Pages { PresentWhenSmall, Present };

/// A new large block that is on no list; null on failure, which is reported.
void* newLargeBlock(unsigned sizeClass, size_t requestedSize, Pages pages) noexcept
{
    if (sizeClass >= classCount) {
        reportFailure("vm_allocate", SIZE_MAX, requestedSize, ENOMEM);
        return nullptr;
    }
    const size_t mappingSize = blockSize(sizeClass) + pageSize;
    const bool present = pages == Pages::Present || mappingSize <= mostBytesMadePresent;
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

/// A new chunk's first block, the others linked behind it in ascending order: first, then next … to last.
struct Chain {
    AtomicStack::Link* first = nullptr;
    AtomicStack::Link* last = nullptr;
    size_t count = 0;
};

/// A chunk's blocks; an empty chain on failure, which is reported.
Chain newChunk(unsigned sizeClass, size_t requestedSize) noexcept
{
    PageMapping::Result chunk = PageMapping::map(chunkSize, PageMapping::Touch::Now);
    if (!chunk.address) {
        reportFailure("vm_allocate", chunkSize, requestedSize, chunk.error);
        return {};
    }
    if (reinterpret_cast<uintptr_t>(chunk.address) % chunkSize != 0) {
        chunk = PageMapping::moveToAlignment(chunk.address, chunkSize);
        if (!chunk.address) {
            reportFailure("vm_remap", chunkSize, requestedSize, chunk.error);
            return {};
        }
    }
    *reinterpret_cast<uint64_t*>(chunk.address) = sizeClass;

    const size_t size = blockSize(sizeClass);
    Chain chain;
    for (size_t offset = firstBlockOffset; offset + size <= chunkSize; offset += size) {
        if (offset % pageSize == 0)
            continue; // would be taken for a large block
        auto* const link = new (chunk.address + offset) AtomicStack::Link;
        link->next.store(nullptr, std::memory_order_relaxed);
        if (chain.last)
            chain.last->next.store(link, std::memory_order_relaxed);
        else
            chain.first = link;
        chain.last = link;
        ++chain.count;
    }
    return chain;
}

/// What a request finds when its list is empty.
void* newBlock(unsigned sizeClass, size_t requestedSize) noexcept
{
    if (sizeClass > largestSmallClass)
        return newLargeBlock(sizeClass, requestedSize, Pages::PresentWhenSmall);
    const Chain chain = newChunk(sizeClass, requestedSize);
    if (chain.count > 1)
        gAllocationQueues[sizeClass].pushChain(chain.first->next.load(std::memory_order_relaxed), chain.last);
    return chain.first;
}

/// The class of a block in use; ends the process when its header was overwritten.
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
        if (void* const block = gAllocationQueues[sizeClass].pop())
            return block;
    }
    return newBlock(sizeClass, std::max<size_t>(size, 1));
}

void TFA_free(void* pointer) noexcept
{
    if (!pointer)
        return;
    const unsigned sizeClass = checkedClassOf(pointer);
    gAllocationQueues[sizeClass].push(new (pointer) AtomicStack::Link);
}

void TFASpentBlocks::add(void* block) noexcept
{
    auto* const link = new (block) AtomicStack::Link;
    link->next.store(static_cast<AtomicStack::Link*>(_first), std::memory_order_relaxed);
    _first = link;
    if (!_last)
        _last = link;
    if (++_count == mostBlocks)
        giveBack();
}

void TFASpentBlocks::giveBack() noexcept
{
    if (!_first)
        return;
    gAllocationQueues[checkedClassOf(_first)].pushChain(static_cast<AtomicStack::Link*>(_first),
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
    void* const block = TFA_malloc(newSize == 0 ? size : newSize); // 0: beyond every class, and refused there
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
        std::free(pointer); // NOLINT: published behaviour, see the header
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
    return TFA_malloc(std::max(size, 2 * pageSize)); // a small block is never on a page boundary
}

bool TFA_reserve(size_t size, size_t count) noexcept
{
    const unsigned sizeClass = classOf(size);
    for (size_t added = 0; added < count;) {
        Chain chain;
        if (sizeClass <= largestSmallClass) {
            chain = newChunk(sizeClass, size);
        } else if (void* const block = newLargeBlock(sizeClass, size, Pages::Present)) {
            auto* const link = new (block) AtomicStack::Link;
            chain = {link, link, 1};
        }
        if (chain.count == 0)
            return false;
        gAllocationQueues[sizeClass].pushChain(chain.first, chain.last);
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
