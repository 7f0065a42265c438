#include "Futex.h"

#include "HostClock.h"

#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace dxr {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
              std::atomic<uint32_t>::is_always_lock_free);
static_assert(HostClock::nanosecondsNumerator == 1 && HostClock::nanosecondsDenominator == 1,
              "deadlines are handed to the kernel as they are");

bool Futex::wait(const std::atomic<uint32_t>& word, uint32_t expected, uint64_t deadlineTicks) noexcept
{
    constexpr uint64_t nanosecondsPerSecond = 1'000'000'000;
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(deadlineTicks / nanosecondsPerSecond);
    deadline.tv_nsec = static_cast<long>(deadlineTicks % nanosecondsPerSecond);
    // The bit-set form takes an absolute deadline on the monotonic clock.
    const long result =
        syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected,
                deadlineTicks == noDeadline ? nullptr : &deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

void Futex::wakeOne(const std::atomic<uint32_t>* word) noexcept
{
    const int before = errno;
    syscall(SYS_futex, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
    errno = before; // the code that an IO callback interrupted may be about to read errno
}

} // namespace dxr
