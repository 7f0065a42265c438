#pragma once

#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>

/// While it exists, the process cannot create threads. Root, who has no limit, is another user meanwhile.
/// Threads that start at first use may be running already: a test whose fault needs their start finds it only
/// if it runs in a process of its own.
class NoNewThreads {
public:
    NoNewThreads()
    {
        getrlimit(RLIMIT_NPROC, &_before);
        const rlimit none{1, _before.rlim_max};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (_isRoot && setresuid(65534, 65534, 0) != 0))
            std::abort();
    }
    ~NoNewThreads()
    {
        if ((_isRoot && setresuid(0, 0, 0) != 0) || setrlimit(RLIMIT_NPROC, &_before) != 0)
            std::abort();
    }
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;

private:
    const bool _isRoot = geteuid() == 0;
    rlimit _before{};
};
