#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

/// The system calls that the faked cards use, called directly: neither checks nor sanitizers see them.
/// Threads: any.
struct FakedLibrary {
    static int close(int descriptor) { return static_cast<int>(syscall(SYS_close, descriptor)); }
    static int open(const char* path, int flags, mode_t mode)
    {
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    }
    static void* mmap(void* at, size_t size, int protection, int flags, int descriptor, off_t offset)
    {
        return reinterpret_cast<void*>(syscall(SYS_mmap, at, size, protection, flags, descriptor, offset));
    }
    /// Waits indefinitely if `time` is null.
    static int poll(pollfd* files, nfds_t count, timespec* time)
    {
        return static_cast<int>(syscall(SYS_ppoll, files, count, time, nullptr, 0));
    }
    /// Makes an event counter readable and not writable, or the reverse.
    static void setFull(int counter, bool isFull)
    {
        uint64_t count = UINT64_MAX - 1;
        syscall(isFull ? SYS_write : SYS_read, counter, &count, sizeof count);
    }
};
