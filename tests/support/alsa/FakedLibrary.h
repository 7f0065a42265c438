#pragma once

#include <cstddef>
#include <sys/types.h>

/// The C library's functions that the faked cards stand before, past every check of the program's.
/// Threads: any.
class FakedLibrary {
public:
    static ssize_t read(int descriptor, void* to, size_t size);
    static ssize_t write(int descriptor, const void* from, size_t size);
    static int close(int descriptor);
    static int open(const char* path, int flags, mode_t mode);
    /// All of a file, shared.
    static void* mmap(size_t size, int file);
    /// Until the descriptor can be read, or so many nanoseconds have passed.
    static void wait(int descriptor, long nanoseconds);
    static void sleep(long nanoseconds);
};
