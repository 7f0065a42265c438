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

namespace dxr {

namespace {

std::string demangled(const char* name)
{
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); } // __cxa_demangle used malloc()
    };
    int status = 0;
    const std::unique_ptr<char, Free> readable(abi::__cxa_demangle(name, nullptr, nullptr, &status));
    return readable ? readable.get() : name;
}

std::string frameText(size_t number, void* address)
{
    Dl_info info{};
    // Looks up the call instruction, which ends before the return address: if the called function never
    // returns, that address may belong to the next function.
    const bool known = dladdr(static_cast<const char*>(address) - 1, &info) != 0;
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

[[gnu::noinline]] std::vector<std::string> CallStack::symbols()
{
    std::array<void*, 256> addresses{};
    const auto count = backtrace(addresses.data(), static_cast<int>(addresses.size()));
    const auto end = addresses.begin() + count;
    // Search by address, because a sanitizer that intercepts backtrace() adds a frame.
    auto frame = std::find(addresses.begin(), end, __builtin_return_address(0));
    std::vector<std::string> frames;
    for (; frame != end; ++frame)
        frames.push_back(frameText(frames.size(), *frame));
    return frames;
}

} // namespace dxr
