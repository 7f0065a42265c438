#include "CXRef.h"
#include "CXTFAObject.h"
#include "Random.h"
#include "TFA.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <sys/resource.h>
#include <thread>

namespace {

uintptr_t addressOf(const void* block)
{
    return reinterpret_cast<uintptr_t>(block);
}

TEST(TFA, roundsEveryRequestUpToAPowerOfTwo)
{
    const std::pair<size_t, size_t> rows[] = {{0, 16},      {16, 16},     {17, 32},
                                              {4096, 4096}, {4097, 8192}, {1048577, 2097152}};
    for (const auto& [request, holds] : rows) {
        SCOPED_TRACE(request);
        void* const block = TFA_malloc(request);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(TFA_malloc_size(block), holds);
        EXPECT_EQ(TFA_malloc_good_size(request), holds);
        EXPECT_EQ(addressOf(block) % 4096 == 0, holds > 4096);
        std::memset(block, 0xA5, holds);
        TFA_free(block);
        EXPECT_EQ(TFA_malloc(request), block) << "last in, first out";
        TFA_free(block);
    }
    TFA_free(nullptr);
    void* const page = TFA_valloc(1);
    EXPECT_EQ(TFA_malloc_size(page), 8192U);
    TFA_free(page);
}

TEST(TFA, carvesChunksInAscendingOrderAroundThePageBoundaries)
{
    for (size_t size = 16; size <= 4096; size *= 2) {
        uintptr_t block = 0;
        while (block % 16384 != 16) // until it is the first of a new chunk
            block = addressOf(TFA_malloc(size));
        const uintptr_t chunk = block - 16;
        for (size_t offset = 16 + size; offset + size <= 16384; offset += size)
            ASSERT_TRUE(offset % 4096 == 0 || addressOf(TFA_malloc(size)) == chunk + offset) << size;
        EXPECT_NE(addressOf(TFA_malloc(size)) & ~uintptr_t{16383}, chunk) << size;
    }
}

TEST(TFA, reallocatesByClassAndKeepsTheContent)
{
    auto* const block = static_cast<char*>(TFA_malloc(100));
    std::memset(block, 'x', 128);
    EXPECT_EQ(TFA_realloc(block, 120), block);
    auto* const larger = static_cast<char*>(TFA_realloc(block, 200));
    ASSERT_NE(larger, block);
    EXPECT_EQ(TFA_malloc_size(larger), 256U);
    EXPECT_EQ(std::count(larger, larger + 128, 'x'), 128);
    EXPECT_EQ(TFA_calloc(8, 16), block) << "the old block went back to its list";
    EXPECT_EQ(std::count(block, block + 128, 0), 128);
    EXPECT_EQ(TFA_malloc_size(TFA_realloc(larger, 0)), 16U);
    EXPECT_EQ(TFA_malloc_size(TFA_realloc(nullptr, 30)), 32U);
}

TEST(TFA, servesContainersThroughItsTable)
{
    const CXAllocatorCallbacks& table = *CXTFACFAllocator;
    EXPECT_EQ(table.preferredSize(1000, 0, table.info), 1024);
    void* const block = table.allocate(1000, 0, table.info);
    EXPECT_EQ(table.reallocate(block, 1001, 0, table.info), block);
    EXPECT_EQ(table.reallocate(block, 0, 0, table.info), nullptr);
    table.deallocate(block, table.info);
    EXPECT_EQ(TFA_malloc(1024), block);
}

class Pooled final : public CXTFAObject {
public:
    Pooled() {}      // NOLINT: a defaulted one would clear `bytes`
    char bytes[100]; // not initialised on purpose: the memory is zeroed
};

struct alignas(64) Aligned final : CXTFAObject {};

TEST(CXTFAObject, takesItsMemoryFromTheFastAllocatorAndGivesItBack)
{
    const void* where = nullptr;
    for (int round = 0; round < 2; ++round) {
        const CXRef<Pooled> object = CXRef<Pooled>::adopt(new Pooled);
        EXPECT_EQ(TFA_malloc_size(object.get()), 128U);
        EXPECT_TRUE(where == nullptr || where == object.get()) << "the freed block is used again";
        where = object.get();
        EXPECT_EQ(std::count(object->bytes, std::end(object->bytes), 0), 100);
        std::memset(object->bytes, 7, sizeof object->bytes);
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(addressOf(CXRef<Aligned>::adopt(new Aligned).get()) % alignof(Aligned), 0U);
}

#ifndef DXR_SANITIZED // the sanitizers touch additional pages and exceed a limited address space
TEST(TFA, reservedBlocksNeedNothingFromTheSystem)
{
    const auto pageFaults = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_minflt;
    };
    for (const size_t size : {size_t{64}, size_t{4096}, size_t{32768}, size_t{1} << 20}) {
        ASSERT_TRUE(TFA_reserve(size, 20));
        const long before = pageFaults();
        for (int i = 0; i < 20; ++i) {
            const CXRealtimeScope realtime;
            TFA_free(TFA_malloc(size));
            auto* const block = static_cast<volatile char*>(TFA_malloc(size));
            block[0] = 1;
            block[size - 1] = 1;
        }
        EXPECT_EQ(pageFaults(), before) << size;
    }
    EXPECT_FALSE(TFA_reserve(SIZE_MAX, 1));
}

TEST(TFADeathTest, reportsExhaustionAndReturnsNull)
{
    const auto exhaust = [](size_t size) {
        const rlimit limit{0, 0};
        setrlimit(RLIMIT_AS, &limit);
        while (void* const block = TFA_malloc(size))
            static_cast<volatile char*>(block)[0] = 1;
        const bool refused = !TFA_calloc(1, size) && !TFA_realloc(nullptr, size) && !TFA_reserve(size, 10000);
        _exit(refused ? 0 : 1);
    };
    const std::string message = "Threadsafe Fast Allocator: vm_allocate\\(";
    EXPECT_EXIT(exhaust(100), testing::ExitedWithCode(0),
                message + "16384\\) for requested size 100 failed with error 12");
    EXPECT_EXIT(exhaust(9000), testing::ExitedWithCode(0),
                message + "20480\\) for requested size 9000 failed with error 12");
    EXPECT_EQ(TFA_malloc(SIZE_MAX), nullptr);
    EXPECT_EQ(TFA_malloc_good_size(SIZE_MAX), 0U);
    void* const kept = TFA_malloc(8);
    EXPECT_EQ(TFA_realloc(kept, SIZE_MAX), nullptr);
    EXPECT_EQ(TFA_malloc_size(kept), 16U) << "a failed reallocation leaves the block alone";
}

TEST(TFADeathTest, stopsAtADamagedHeader)
{
    auto* const block = static_cast<uint64_t*>(TFA_malloc(10000));
    block[-1] = 0;
    EXPECT_EQ(TFA_malloc_size(block), 0U);
    EXPECT_EXIT(TFA_free(block), testing::KilledBySignal(SIGABRT), "");
}
#endif

// Blocks move between threads through a shared board with enough places to exhaust chunks and regions. Each
// is filled with its owner's pattern and checked before it is freed: a block with two owners, or a lost or
// torn link, shows as a wrong byte.
TEST(TFA, neverGivesABlockToTwoOwners)
{
    constexpr size_t places = 20'000;
    static std::atomic<unsigned char*> board[places] = {};
    std::atomic<int> foreign{0};
    const auto checkAndFree = [&](unsigned char* block) {
        const size_t size = TFA_malloc_size(block);
        foreign += std::count(block, block + size, block[0]) == static_cast<ptrdiff_t>(size) ? 0 : 1;
        TFA_free(block);
    };
    const auto churn = [&](unsigned seed) {
        Random random(seed);
        for (int i = 0; i < 60'000; ++i) {
            const size_t size = random.below(10) == 0 ? 8192 : size_t{16} << random.below(4);
            auto* const block = static_cast<unsigned char*>(TFA_malloc(size));
            std::memset(block, static_cast<int>(random.below(255)), size);
            if (auto* const other = board[random.below(places)].exchange(block))
                checkAndFree(other);
        }
    };
    std::thread threads[] = {std::thread(churn, 1), std::thread(churn, 2), std::thread(churn, 3),
                             std::thread(churn, 4)};
    for (std::thread& thread : threads)
        thread.join();
    for (auto& place : board)
        if (auto* const block = place.load())
            checkAndFree(block);
    EXPECT_EQ(foreign, 0);
}

} // namespace
