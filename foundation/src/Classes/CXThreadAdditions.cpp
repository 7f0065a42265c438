#include "CXThreadAdditions.h"

#include "Utf8.h"

#include <algorithm>
#include <pthread.h>
#include <string>

void vt_setThreadName(std::string_view name)
{
    constexpr size_t mostBytes = 15;
    std::string fitting;
    while (!name.empty()) {
        const size_t length = std::max<size_t>(platform::utf8CharacterLength(name), 1);
        if (fitting.size() + length > mostBytes)
            break;
        fitting += name.substr(0, length);
        name.remove_prefix(length);
    }
    pthread_setname_np(pthread_self(), fitting.c_str());
}
