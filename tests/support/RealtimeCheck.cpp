// Ends the test and prints a stack when code inside a CXRealtimeScope allocates, frees, locks or makes a
// system call that may wait. Linked into every test program. Does nothing under the sanitizers, which
// interpose the same functions.
#include "CXRealtime.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef DXR_SANITIZED

namespace {

/// In checked code, prints the function and a stack, and aborts.
void check(const char* function)
{
    if (!CXRealtimeScope::isChecked())
        return;
    const CXRealtimeExemption exemption("what follows allocates");
    std::fprintf(stderr, "not for real-time work: %s\n", function);
    void* frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    std::abort();
}

/// Returns the next definition of the function, which this program's own definition hides.
template <class Function> Function* hidden(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Hides the C library's function: checks, then calls the next definition. No function here has more than six
// parameters, all of them integers or pointers, which are passed as words on every processor with 64 bits.
#define CHECKED(name)                                                                                        \
    long checked_##name(long a, long b, long c, long d, long e, long f) __asm__(#name);                      \
    long checked_##name(long a, long b, long c, long d, long e, long f)                                      \
    {                                                                                                        \
        check(#name);                                                                                        \
        static auto* const next = hidden<long(long, long, long, long, long, long)>(#name);                   \
        return next(a, b, c, d, e, f);                                                                       \
    }

extern "C" {

// The C library's internal entry points: they need no dlsym(), which itself allocates.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* pointer);

void* malloc(size_t size) noexcept
{
    check("malloc");
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    check("calloc");
    return __libc_calloc(count, size);
}

void free(void* pointer) noexcept
{
    if (pointer)
        check("free");
    __libc_free(pointer);
}

#pragma GCC visibility push(default) // operator new calls these from the C++ library
CHECKED(realloc)
CHECKED(aligned_alloc)
CHECKED(posix_memalign)
#pragma GCC visibility pop

// Uncontended locks are refused too: the next one may wait.
CHECKED(pthread_mutex_lock)
CHECKED(pthread_mutex_timedlock)
CHECKED(pthread_mutex_clocklock)
CHECKED(pthread_rwlock_rdlock)
CHECKED(pthread_rwlock_wrlock)
CHECKED(pthread_spin_lock)
CHECKED(pthread_barrier_wait)
CHECKED(pthread_cond_wait)
CHECKED(pthread_cond_timedwait)
CHECKED(pthread_cond_clockwait)
CHECKED(pthread_join)
CHECKED(pthread_create)
CHECKED(sem_wait)
CHECKED(sem_timedwait)
CHECKED(sem_clockwait)

CHECKED(sleep)
CHECKED(usleep)
CHECKED(nanosleep)
CHECKED(clock_nanosleep)
CHECKED(sched_yield)
CHECKED(poll)
CHECKED(ppoll)
CHECKED(select)
CHECKED(epoll_wait)
CHECKED(read)
CHECKED(write)
CHECKED(writev)
CHECKED(recv)
CHECKED(send)
CHECKED(recvmsg)
CHECKED(sendmsg)
CHECKED(close)
CHECKED(fsync)
CHECKED(fopen)
CHECKED(munmap)
CHECKED(mprotect)
CHECKED(madvise)
CHECKED(mmap)

// Code waits on a futex through syscall(). Waking a waiter is allowed: it never waits.
long checked_syscall(long number, long a, long b, long c, long d, long e, long f) __asm__("syscall");
long checked_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    const long operation = b & FUTEX_CMD_MASK;
    if (number == SYS_futex &&
        (operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET || operation == FUTEX_LOCK_PI))
        check("futex wait");
    static auto* const next = hidden<long(long, ...)>("syscall");
    return next(number, a, b, c, d, e, f);
}

} // extern "C"

// The first backtrace() of a process loads a library and allocates, which must not happen inside malloc().
[[maybe_unused]] static const int loaded = [] {
    void* frame[1];
    return backtrace(frame, 1);
}();

#endif
