// Ends the test and prints a stack when code inside a CXRealtimeScope allocates, frees, locks or makes a
// system call that may wait. Linked into every test program. Does nothing under the sanitizers, which
// interpose the same functions.
#include "CXRealtime.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#ifndef DXR_SANITIZED

namespace {

/// Prints the function and a stack, and aborts.
[[noreturn]] void fail(const char* function)
{
    const CXRealtimeExemption exemption("what follows allocates");
    char line[160];
    const int length = std::snprintf(line, sizeof line, "not for real-time work: %s\n", function);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
    void* frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    std::abort();
}

void check(const char* function)
{
    if (CXRealtimeScope::isChecked())
        fail(function);
}

/// Returns the next definition of the function, which this program's own definition hides.
template <class Function> Function* hidden(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Each of these hides the C library's function: it checks, then calls `original`.
#define CHECKED_CALLING(original, result, name, parameters, arguments)                                       \
    result name parameters                                                                                   \
    {                                                                                                        \
        check(#name);                                                                                        \
        static auto* const next = original;                                                                  \
        return next arguments;                                                                               \
    }
#define CHECKED(result, name, parameters, arguments)                                                         \
    CHECKED_CALLING(hidden<result parameters>(#name), result, name, parameters, arguments)

extern "C" {

// The C library's internal entry points: they need no dlsym(), which itself allocates.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);

CHECKED_CALLING(__libc_malloc, void*, malloc, (size_t size) noexcept, (size))
CHECKED_CALLING(__libc_calloc, void*, calloc, (size_t count, size_t size) noexcept, (count, size))
CHECKED_CALLING(__libc_realloc, void*, realloc, (void* pointer, size_t size) noexcept, (pointer, size))
CHECKED_CALLING(__libc_memalign, void*, aligned_alloc, (size_t alignment, size_t size) noexcept,
                (alignment, size))

void free(void* pointer) noexcept
{
    if (pointer)
        check("free");
    __libc_free(pointer);
}

int posix_memalign(void** result, size_t alignment, size_t size) noexcept
{
    *result = aligned_alloc(alignment, size);
    return *result ? 0 : ENOMEM;
}

// Uncontended locks are refused too: the next one may wait.
CHECKED(int, pthread_mutex_lock, (pthread_mutex_t * mutex) noexcept, (mutex))
CHECKED(int, pthread_mutex_timedlock, (pthread_mutex_t * mutex, const timespec* until) noexcept,
        (mutex, until))
CHECKED(int, pthread_mutex_clocklock,
        (pthread_mutex_t * mutex, clockid_t clock, const timespec* until) noexcept, (mutex, clock, until))
CHECKED(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock) noexcept, (lock))
CHECKED(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock) noexcept, (lock))
CHECKED(int, pthread_spin_lock, (pthread_spinlock_t * lock) noexcept, (lock))
CHECKED(int, pthread_barrier_wait, (pthread_barrier_t * barrier) noexcept, (barrier))
CHECKED(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex))
CHECKED(int, pthread_cond_timedwait,
        (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* until),
        (condition, mutex, until))
CHECKED(int, pthread_cond_clockwait,
        (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until),
        (condition, mutex, clock, until))
CHECKED(int, pthread_join, (pthread_t thread, void** result), (thread, result))
CHECKED(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept,
        (thread, attributes, body, argument))
CHECKED(int, sem_wait, (sem_t * semaphore), (semaphore))
CHECKED(int, sem_timedwait, (sem_t * semaphore, const timespec* until), (semaphore, until))
CHECKED(int, sem_clockwait, (sem_t * semaphore, clockid_t clock, const timespec* until),
        (semaphore, clock, until))

CHECKED(unsigned, sleep, (unsigned seconds), (seconds))
CHECKED(int, usleep, (useconds_t microseconds), (microseconds))
CHECKED(int, nanosleep, (const timespec* length, timespec* left), (length, left))
CHECKED(int, clock_nanosleep, (clockid_t clock, int flags, const timespec* until, timespec* left),
        (clock, flags, until, left))
CHECKED(int, sched_yield, () noexcept, ())
CHECKED(int, poll, (pollfd * descriptors, nfds_t count, int milliseconds), (descriptors, count, milliseconds))
CHECKED(int, ppoll, (pollfd * descriptors, nfds_t count, const timespec* length, const sigset_t* signals),
        (descriptors, count, length, signals))
CHECKED(int, select, (int count, fd_set* in, fd_set* out, fd_set* other, timeval* length),
        (count, in, out, other, length))
CHECKED(int, epoll_wait, (int epoll, epoll_event* events, int count, int milliseconds),
        (epoll, events, count, milliseconds))
CHECKED(ssize_t, read, (int descriptor, void* data, size_t size), (descriptor, data, size))
CHECKED(ssize_t, write, (int descriptor, const void* data, size_t size), (descriptor, data, size))
CHECKED(ssize_t, writev, (int descriptor, const iovec* data, int count), (descriptor, data, count))
CHECKED(ssize_t, recv, (int socket, void* data, size_t size, int flags), (socket, data, size, flags))
CHECKED(ssize_t, send, (int socket, const void* data, size_t size, int flags), (socket, data, size, flags))
CHECKED(ssize_t, recvmsg, (int socket, msghdr* message, int flags), (socket, message, flags))
CHECKED(ssize_t, sendmsg, (int socket, const msghdr* message, int flags), (socket, message, flags))
CHECKED(int, close, (int descriptor), (descriptor))
CHECKED(int, fsync, (int descriptor), (descriptor))
CHECKED(FILE*, fopen, (const char* path, const char* mode), (path, mode))
CHECKED(int, munmap, (void* address, size_t size) noexcept, (address, size))
CHECKED(int, mprotect, (void* address, size_t size, int protection) noexcept, (address, size, protection))
CHECKED(int, madvise, (void* address, size_t size, int advice) noexcept, (address, size, advice))

CHECKED(void*, mmap,
        (void* address, size_t size, int protection, int flags, int descriptor, off_t offset) noexcept,
        (address, size, protection, flags, descriptor, offset))

// Code waits on a futex through syscall(). Waking a waiter is allowed: it never waits.
long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_futex) {
        const long operation = arguments[1] & FUTEX_CMD_MASK;
        if (operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET || operation == FUTEX_LOCK_PI)
            check("futex wait");
    }
    static auto* const original = hidden<long(long, ...)>("syscall");
    return original(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                    arguments[5]);
}

} // extern "C"

// The first backtrace() of a process loads a library and allocates, which must not happen inside malloc().
[[maybe_unused]] static const int loaded = [] {
    void* frame[1];
    return backtrace(frame, 1);
}();

#endif
