// What does a block cost, alone, between threads and at worst, beside the C library, mimalloc, jemalloc and
// TLSF under a mutex, which is what real-time programs use?

#include "Comparison.h"
#include "TFA.h"
#include "TLSF.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>
#include <x86intrin.h>

extern "C" void* __libc_malloc(size_t size);
extern "C" void __libc_free(void* pointer);

namespace {

struct Allocator {
    const char* name;
    void* (*allocate)(size_t size);
    void (*release)(void* pointer);
};

TLSF& tlsf()
{
    constexpr size_t size = size_t{512} << 20;
    static auto* const pool = new TLSF(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0),
        size);
    return *pool;
}

/// A peer's functions from its own library, so that it does not take over the process's malloc.
Allocator peer(const char* name, const char* library, const char* allocate, const char* release)
{
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    return {name, reinterpret_cast<void* (*)(size_t)>(dlsym(handle, allocate)),
            reinterpret_cast<void (*)(void*)>(dlsym(handle, release))};
}

std::vector<Allocator> allocators()
{
    return {{"TFA", [](size_t size) { return TFA_malloc(size); }, [](void* pointer) { TFA_free(pointer); }},
            {"glibc", __libc_malloc, __libc_free},
            peer("mimalloc", "libmimalloc.so.2.0", "mi_malloc", "mi_free"),
            peer("jemalloc", "libjemalloc.so.2", "malloc", "free"),
            {"TLSF", [](size_t size) { return tlsf().allocate(size); }, [](void* p) { tlsf().release(p); }}};
}

void touch(void* block)
{
    *static_cast<volatile char*>(block) = 1;
}

double pairs(const Allocator& allocator, size_t size, int count)
{
    const uint64_t start = nowNanoseconds();
    for (int i = 0; i < count; ++i) {
        void* const block = allocator.allocate(size);
        touch(block);
        allocator.release(block);
    }
    return static_cast<double>(nowNanoseconds() - start) / count;
}

double bursts(const Allocator& allocator, size_t size)
{
    constexpr int length = 100;
    constexpr int count = 100;
    void* blocks[length];
    const uint64_t start = nowNanoseconds();
    for (int i = 0; i < count; ++i) {
        for (void*& block : blocks)
            touch(block = allocator.allocate(size));
        for (void* block : blocks)
            allocator.release(block);
    }
    return static_cast<double>(nowNanoseconds() - start) / (count * length);
}

/// Per pair of one thread, while the other does the same.
double twoThreads(const Allocator& allocator, size_t size)
{
    constexpr int count = 30'000;
    std::atomic<int> ready{0};
    double results[2] = {};
    std::thread other;
    const auto body = [&](double& result) {
        for (++ready; ready < 2;) {
        }
        result = pairs(allocator, size, count);
    };
    other = std::thread([&] { body(results[1]); });
    body(results[0]);
    other.join();
    return (results[0] + results[1]) / 2;
}

/// Per block that one thread allocates and the other frees.
double acrossThreads(const Allocator& allocator, size_t size)
{
    constexpr uint64_t count = 30'000;
    constexpr uint64_t places = 1024;
    static void* ring[places];
    alignas(64) std::atomic<uint64_t> written{0};
    alignas(64) std::atomic<uint64_t> taken{0};
    const uint64_t start = nowNanoseconds();
    std::thread consumer([&] {
        for (uint64_t i = 0; i < count; ++i) {
            while (written.load(std::memory_order_acquire) == i)
                _mm_pause();
            allocator.release(ring[i % places]);
            taken.store(i + 1, std::memory_order_release);
        }
    });
    for (uint64_t i = 0; i < count; ++i) {
        while (i - taken.load(std::memory_order_acquire) == places)
            _mm_pause();
        void* const block = allocator.allocate(size);
        touch(block);
        ring[i % places] = block;
        written.store(i + 1, std::memory_order_release);
    }
    consumer.join();
    return static_cast<double>(nowNanoseconds() - start) / static_cast<double>(count);
}

double nanosecondsPerCycle()
{
    const uint64_t start = nowNanoseconds();
    const uint64_t cycles = __rdtsc();
    while (nowNanoseconds() - start < 20'000'000) {
    }
    return static_cast<double>(nowNanoseconds() - start) / static_cast<double>(__rdtsc() - cycles);
}

void tail(const char* what, size_t count, const std::function<void(const Allocator&, size_t)>& step)
{
    const double nanoseconds = nanosecondsPerCycle();
    std::printf("tail, %s [ns, the clock's own reading included]\n", what);
    for (const Allocator& allocator : allocators()) {
        std::vector<uint32_t> cycles(count, 1);
        for (size_t i = 0; i < count; ++i) {
            const uint64_t start = __rdtsc();
            step(allocator, i);
            cycles[i] = static_cast<uint32_t>(std::min<uint64_t>(__rdtsc() - start, UINT32_MAX));
        }
        std::ranges::sort(cycles);
        std::printf("    %-9s p50 %6.0f  p99 %6.0f  p99.99 %7.0f  largest %8.0f\n", allocator.name,
                    percentile(cycles, 0.5) * nanoseconds, percentile(cycles, 0.99) * nanoseconds,
                    percentile(cycles, 0.9999) * nanoseconds, cycles.back() * nanoseconds);
    }
}

void compare(const std::string& question, const std::function<double(const Allocator&)>& measure)
{
    Comparison comparison(question, "ns", Comparison::Better::Lower);
    for (const Allocator& allocator : allocators())
        comparison.add(allocator.name, [=] { return measure(allocator); });
    comparison.run();
}

} // namespace

int main(int, char** arguments)
{
    // jemalloc wants more thread-local memory than a library loaded late is given, unless asked for at the
    // start.
    if (!std::getenv("GLIBC_TUNABLES")) {
        setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=16384", 1);
        execv("/proc/self/exe", arguments);
    }
    const IdleThread idle;
    for (const size_t size : {64, 1024, 4096}) {
        const std::string bytes = std::to_string(size) + " bytes";
        compare("a pair, one thread, " + bytes, [=](const Allocator& a) { return pairs(a, size, 20'000); });
        compare("a pair in bursts of 100, " + bytes, [=](const Allocator& a) { return bursts(a, size); });
        compare("a pair, two threads apart, " + bytes,
                [=](const Allocator& a) { return twoThreads(a, size); });
        compare("a block allocated here, freed there, " + bytes,
                [=](const Allocator& a) { return acrossThreads(a, size); });
    }
    tail("ten million warm pairs of 64 bytes", 10'000'000, [](const Allocator& allocator, size_t) {
        void* const block = allocator.allocate(64);
        touch(block);
        allocator.release(block);
    });
    tail("growing: half a million blocks of 256 bytes, none freed", 500'000,
         [](const Allocator& allocator, size_t) { touch(allocator.allocate(256)); });
    if (!TFA_reserve(512, 500'000))
        return 1;
    const double nanoseconds = nanosecondsPerCycle();
    std::vector<uint64_t> cycles(500'000, 1);
    for (uint64_t& one : cycles) {
        const uint64_t start = __rdtsc();
        touch(TFA_malloc(512));
        one = __rdtsc() - start;
    }
    std::ranges::sort(cycles);
    std::printf("the same of 512 bytes after TFA_reserve\n    %-9s p50 %6.0f  p99 %6.0f  p99.99 %7.0f  "
                "largest %8.0f\n",
                "TFA", static_cast<double>(percentile(cycles, 0.5)) * nanoseconds,
                static_cast<double>(percentile(cycles, 0.99)) * nanoseconds,
                static_cast<double>(percentile(cycles, 0.9999)) * nanoseconds,
                static_cast<double>(cycles.back()) * nanoseconds);
}
