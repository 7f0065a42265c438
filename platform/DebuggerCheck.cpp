#include "DebuggerCheck.h"

#include <fstream>
#include <string>

namespace dxr {

std::optional<bool> isDebuggerAttached()
{
    std::ifstream status("/proc/self/status");
    for (std::string key; status >> key;) {
        if (int tracer = 0; key == "TracerPid:" && status >> tracer)
            return tracer != 0;
        std::getline(status, key);
    }
    return std::nullopt;
}

} // namespace dxr
