#pragma once

#include <cstdlib>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

/// Drops all capabilities of the calling thread and of threads it starts later, and the process's permission
/// to use real-time priorities. Aborts on failure. Cannot be undone: call it in a child process.
inline void giveUpPrivileges()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    const rlimit noPriority{0, 0};
    if (syscall(SYS_capset, &header, none) != 0 || setrlimit(RLIMIT_RTPRIO, &noPriority) != 0)
        std::abort();
}
