#include "Guard.h"

#include "Utf8.h"

#include <atomic>
#include <cstdio>
#include <pthread.h>
#include <string_view>

namespace dxr_c {

namespace {

thread_local char errorText[512] = "";
std::atomic<bool> isUsed{false};   // threads have been started, which fork() does not copy
std::atomic<bool> isForked{false}; // set in the child of fork(), which then has one thread

} // namespace

dxr_status noteError(dxr_status status, const char* function, const char* text) noexcept
{
    std::snprintf(errorText, sizeof errorText, "%s: %s", function, text);
    const std::string_view whole = dxr::utf8Prefix(errorText, sizeof errorText - 4);
    errorText[whole.size()] = 0;
    return status;
}

const char* lastErrorText() noexcept
{
    return errorText;
}

void prepareForFork()
{
    static const bool isPrepared [[maybe_unused]] = [] {
        return pthread_atfork(nullptr, nullptr, [] { isForked = isUsed.load(); }) == 0;
    }();
    isUsed = true;
}

bool isForkedCopy() noexcept
{
    return isForked;
}

} // namespace dxr_c
