#pragma once

#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

/// The system calls that the faked cards interpose, called directly: neither checks nor sanitizers see them.
/// Threads: any.
struct FakedLibrary {
    static ssize_t read(int descriptor, void* to, size_t size)
    {
        return syscall(SYS_read, descriptor, to, size);
    }
    static ssize_t write(int descriptor, const void* from, size_t size)
    {
        return syscall(SYS_write, descriptor, from, size);
    }
    static int close(int descriptor) { return static_cast<int>(syscall(SYS_close, descriptor)); }
    static int open(const char* path, int flags, mode_t mode)
    {
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    }
    static int pipe(int (&ends)[2], int flags) { return static_cast<int>(syscall(SYS_pipe2, ends, flags)); }
    static void* mmap(void* at, size_t size, int protection, int flags, int descriptor, off_t offset)
    {
        return reinterpret_cast<void*>(syscall(SYS_mmap, at, size, protection, flags, descriptor, offset));
    }
    /// Waits indefinitely if `time` is null.
    static int poll(pollfd* files, nfds_t count, timespec* time)
    {
        return static_cast<int>(syscall(SYS_ppoll, files, count, time, nullptr, 0));
    }
    static void sleep(long nanoseconds)
    {
        timespec time{0, nanoseconds};
        poll(nullptr, 0, &time);
    }
};
