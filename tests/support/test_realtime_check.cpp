#include "CXRealtime.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <linux/futex.h>
#include <mutex>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

// If the check detected nothing, every real-time test would pass.
TEST(RealtimeCheckDeathTest, endsTheProcessAtCallsThatMayWait)
{
#ifdef DXR_SANITIZED
    GTEST_SKIP() << "the sanitizers interpose the same functions";
#endif
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::mutex other;
    std::condition_variable changed;
    uint32_t word = 0;
    auto* const spare = new int;
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"malloc", [] { *static_cast<volatile char*>(operator new(8)) = 1; }},
        {"aligned_alloc", [] { *static_cast<volatile char*>(operator new(64, std::align_val_t(64))) = 1; }},
        {"free", [spare] { operator delete(spare); }},
        {"pthread_mutex_lock", [&] { other.lock(); }},
        {"pthread_cond_", [&] { changed.wait_for(lock, std::chrono::milliseconds(1)); }},
        {"futex wait", [&word] { syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 1, nullptr, nullptr, 0); }},
        {"nanosleep", [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }},
        {"write", [] { [[maybe_unused]] const ssize_t count = write(STDERR_FILENO, "", 0); }},
    };
    for (const auto& [function, body] : rows) {
        const auto underCheck = [&body = body] {
            const CXRealtimeScope realtime;
            body();
        };
        EXPECT_EXIT(underCheck(), testing::KilledBySignal(SIGABRT),
                    std::string("not for real-time work: ") + function + ".*\n(.*\n)*.*test_support");
    }
    delete spare;
}
