#include "CallStack.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <memory>

namespace platform {

namespace {

std::string demangled(const char* name)
{
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); } // what __cxa_demangle allocated
    };
    int status = 0;
    const std::unique_ptr<char, Free> readable(abi::__cxa_demangle(name, nullptr, nullptr, &status));
    return readable ? readable.get() : name;
}

std::string frameText(size_t number, void* address)
{
    Dl_info info{};
    const bool known = dladdr(address, &info) != 0;
    const char* module = known && info.dli_fname ? info.dli_fname : "?";
    if (const char* slash = std::strrchr(module, '/'))
        module = slash + 1;
    std::array<char, 96> head{};
    std::snprintf(head.data(), head.size(), "%-3zu %-24.40s %p ", number, module, address);
    std::string text = head.data();
    const char* base = static_cast<const char*>(known && info.dli_saddr ? info.dli_saddr : info.dli_fbase);
    text += known && info.dli_sname ? demangled(info.dli_sname) : module;
    return text + " + " + std::to_string(static_cast<const char*>(address) - base);
}

} // namespace

std::vector<std::string> CallStack::symbols(size_t skip)
{
    std::array<void*, 256> addresses{};
    const auto count = static_cast<size_t>(backtrace(addresses.data(), static_cast<int>(addresses.size())));
    const size_t first = std::min(skip + 1, count);
    std::vector<std::string> frames;
    frames.reserve(count - first);
    for (size_t i = first; i < count; ++i)
        frames.push_back(frameText(i - first, addresses[i]));
    return frames;
}

} // namespace platform
