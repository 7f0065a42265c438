#include "DXRDebugLog.h"

#include "CallStack.h"
#include "LogSink.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace {

constexpr size_t maxFramesShown = 32;

struct DebugCenter {
    std::mutex mutex;
    CXBlock<bool()> isActive;
    std::once_flag asked;
    bool active = false; // written once, under `asked`
};

thread_local bool isAsking = false; // the callback is running on this thread

DebugCenter& debugCenter()
{
    static auto* center = new DebugCenter; // never destroyed: other threads log while the process exits
    return *center;
}

void logMessage(const char* format, va_list arguments)
{
    dxr::LogSink::log("[DXR] " + CXFormatted(format, arguments));
}

} // namespace

void CXRegisterDebugCenter(CXBlock<bool()> isActive)
{
    const std::scoped_lock lock(debugCenter().mutex);
    debugCenter().isActive = std::move(isActive);
}

bool DXRDebugLogIsActive()
{
    if (isAsking)
        return false; // the callback itself logs; waiting for its result would deadlock
    DebugCenter& center = debugCenter();
    std::call_once(center.asked, [&] {
        CXBlock<bool()> isActive;
        {
            const std::scoped_lock lock(center.mutex);
            isActive = center.isActive;
        }
        struct Asking {
            Asking() { isAsking = true; }
            ~Asking() { isAsking = false; }
        } const asking;
        center.active = isActive && isActive();
    });
    return center.active;
}

void DXRDebugLog(const char* format, ...)
{
    if (!DXRDebugLogIsActive())
        return;
    va_list arguments;
    va_start(arguments, format);
    logMessage(format, arguments);
    va_end(arguments);
}

void DXRDebugLogWithStack(const char* format, ...)
{
    if (!DXRDebugLogIsActive())
        return;
    std::vector<std::string> frames = dxr::CallStack::symbols();
    if (!frames.empty())
        frames.erase(frames.begin()); // this function
    frames.resize(std::min(frames.size(), maxFramesShown));
    if (format) {
        va_list arguments;
        va_start(arguments, format);
        logMessage(format, arguments);
        va_end(arguments);
    }
    std::for_each(frames.rbegin(), frames.rend(),
                  [](const std::string& frame) { std::fprintf(stderr, "    %s\n", frame.c_str()); });
}
