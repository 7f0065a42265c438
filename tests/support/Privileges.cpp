#include "Privileges.h"

#include <cstdlib>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

void giveUpPrivileges()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    const rlimit noPriority{0, 0};
    if (syscall(SYS_capset, &header, none) != 0 || setrlimit(RLIMIT_RTPRIO, &noPriority) != 0)
        std::abort();
}
