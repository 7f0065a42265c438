// What does a block cost: on one thread, between threads, in the worst case, and when no block is free?
// Compared with the C library, mimalloc, jemalloc, and TLSF under a mutex, which real-time programs use.

#include "Comparison.h"
#include "TFA.h"
#include "TLSF.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
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

/// Loads a peer's functions from its library, so that it does not replace the process's malloc.
void addPeer(std::vector<Allocator>& all, const char* name, const char* library, const char* allocate,
             const char* release)
{
    if (void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL))
        all.push_back({name, reinterpret_cast<void* (*)(size_t)>(dlsym(handle, allocate)),
                       reinterpret_cast<void (*)(void*)>(dlsym(handle, release))});
    else
        std::fprintf(stderr, "%s is left out: %s\n", name, dlerror());
}

const std::vector<Allocator>& allocators()
{
    static const std::vector<Allocator> all = [] {
        std::vector<Allocator> found = {
            {"TFA", [](size_t size) { return TFA_malloc(size); }, [](void* p) { TFA_free(p); }},
            {"glibc", __libc_malloc, __libc_free},
            {"TLSF", [](size_t size) { return tlsf().allocate(size); }, [](void* p) { tlsf().release(p); }}};
        addPeer(found, "mimalloc", "libmimalloc.so.2.0", "mi_malloc", "mi_free");
        addPeer(found, "jemalloc", "libjemalloc.so.2", "malloc", "free");
        return found;
    }();
    return all;
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

/// The time per pair on one thread while another thread does the same.
double twoThreads(const Allocator& allocator, size_t size)
{
    constexpr int count = 30'000;
    std::atomic<int> ready{0};
    double results[2] = {};
    std::thread other;
    const auto body = [&](unsigned index) {
        stayOnProcessor(index);
        for (++ready; ready < 2;) {
        }
        results[index] = pairs(allocator, size, count);
    };
    other = std::thread([&] { body(1); });
    body(0);
    other.join();
    return (results[0] + results[1]) / 2;
}

/// The time per block that one thread allocates and another frees, passed on `packet` at a time.
double acrossThreads(const Allocator& allocator, size_t size, uint64_t packet)
{
    constexpr uint64_t count = 32'768;
    constexpr uint64_t places = 1024;
    static void* ring[places];
    alignas(64) std::atomic<uint64_t> written{0};
    alignas(64) std::atomic<uint64_t> taken{0};
    std::atomic<bool> isReady{false};
    std::thread consumer([&] {
        stayOnProcessor(1);
        isReady = true;
        for (uint64_t i = 0; i < count; i += packet) {
            while (written.load(std::memory_order_acquire) == i)
                _mm_pause();
            for (uint64_t k = i; k < i + packet; ++k)
                allocator.release(ring[k % places]);
            taken.store(i + packet, std::memory_order_release);
        }
    });
    stayOnProcessor(0);
    while (!isReady)
        std::this_thread::yield();
    const uint64_t start = nowNanoseconds();
    for (uint64_t i = 0; i < count; i += packet) {
        while (i - taken.load(std::memory_order_acquire) == places)
            _mm_pause();
        for (uint64_t k = i; k < i + packet; ++k)
            touch(ring[k % places] = allocator.allocate(size));
        written.store(i + packet, std::memory_order_release);
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

/// Counts times by length, in little memory: a list of ten million times would cause cache misses that affect
/// the measurement.
class Times {
public:
    void add(uint64_t cycles)
    {
        if (cycles < _counts.size())
            ++_counts[cycles];
        else
            _long.push_back(cycles);
    }
    void print(const char* name)
    {
        static const double nanoseconds = nanosecondsPerCycle();
        std::ranges::sort(_long);
        std::printf("    %-9s p50 %6.0f  p99 %6.0f  p99.99 %7.0f  largest %8.0f\n", name,
                    _below(0.5) * nanoseconds, _below(0.99) * nanoseconds, _below(0.9999) * nanoseconds,
                    _below(1) * nanoseconds);
    }

private:
    double _below(double part) const
    {
        size_t total = _long.size();
        for (const uint32_t count : _counts)
            total += count;
        auto left = static_cast<size_t>(part * static_cast<double>(total - 1));
        for (size_t cycles = 0; cycles < _counts.size(); ++cycles) {
            if (left < _counts[cycles])
                return static_cast<double>(cycles);
            left -= _counts[cycles];
        }
        return static_cast<double>(_long[left]);
    }
    std::vector<uint32_t> _counts = std::vector<uint32_t>(2048);
    std::vector<uint64_t> _long;
};

void tail(const char* what, size_t count, const std::vector<Allocator>& candidates,
          const std::function<void(const Allocator&)>& step)
{
    std::printf("tail, %s [ns, the clock's own reading included]\n", what);
    for (const Allocator& allocator : candidates) {
        Times times;
        for (size_t i = 0; i < count; ++i) {
            const uint64_t start = __rdtsc();
            step(allocator);
            times.add(__rdtsc() - start);
        }
        times.print(allocator.name);
    }
}

size_t mappingCount()
{
    std::ifstream maps("/proc/self/maps");
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(maps), {}, '\n'));
}

void growth(size_t size, size_t count)
{
    for (const Allocator& allocator : allocators()) {
        const size_t before = mappingCount();
        tail(("growing: " + std::to_string(count) + " blocks of " + std::to_string(size) +
              " bytes, none freed")
                 .c_str(),
             count, {allocator}, [size](const Allocator& a) { touch(a.allocate(size)); });
        std::printf("    %-9s %zu mappings more\n", allocator.name, mappingCount() - before);
    }
}

/// Returns preallocated blocks in turn: shows what passing them between threads costs alone.
Allocator noAllocator()
{
    return {"none: hand-over alone",
            [](size_t size) -> void* {
                static std::byte blocks[1500 * 4096];
                static unsigned next = 0;
                return blocks + next++ % 1500 * size;
            },
            [](void*) {}};
}

/// The same with an atomic operation at either end, on a word of the calling thread: the cost of a list
/// without contention, where each item waits for the previous write.
Allocator oneExchange()
{
    static const auto exchange = [] {
        alignas(64) static thread_local std::atomic<uint64_t> word{0};
        ++word;
    };
    return {"the same with an exchange",
            [](size_t size) {
                exchange();
                return noAllocator().allocate(size);
            },
            [](void* block) {
                touch(block);
                exchange();
            }};
}

enum class HandOver { No, Yes };

void compare(const std::string& question, const std::function<double(const Allocator&)>& measure,
             HandOver handOver = HandOver::No)
{
    Comparison comparison(question, "ns", Comparison::Better::Lower);
    for (const Allocator& allocator : allocators())
        comparison.add(allocator.name, [=] { return measure(allocator); });
    if (handOver == HandOver::Yes) {
        for (const Allocator& bare : {noAllocator(), oneExchange()})
            comparison.addBare(bare.name, [=] { return measure(bare); });
    }
    comparison.run();
}

} // namespace

int main(int, char** arguments)
{
    // jemalloc needs more thread-local memory than a library loaded at run time gets, unless it is reserved
    // at the start of the process.
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
        for (const uint64_t packet : {1, 64})
            compare(
                "a block allocated here, freed there, handed over " + std::to_string(packet) +
                    " at a time, " + bytes,
                [=](const Allocator& a) { return acrossThreads(a, size, packet); }, HandOver::Yes);
    }
    tail("ten million warm pairs of 64 bytes", 10'000'000, allocators(), [](const Allocator& allocator) {
        void* const block = allocator.allocate(64);
        touch(block);
        allocator.release(block);
    });
    growth(256, 500'000);
    growth(4096, 30'000);
    if (!TFA_reserve(512, 500'000))
        return 1;
    tail("the same of 512 bytes after TFA_reserve", 500'000, {allocators().front()},
         [](const Allocator& allocator) { touch(allocator.allocate(512)); });
}
