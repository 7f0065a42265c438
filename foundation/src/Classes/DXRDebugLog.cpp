#include "DXRDebugLog.h"

#include "CallStack.h"
#include "LogSink.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace {

constexpr size_t mostFramesShown = 32;

struct DebugCenter {
    std::mutex mutex;
    CXBlock<bool()> isActive;
    std::once_flag asked;
    bool active = false; // written once, under `asked`
};

DebugCenter& debugCenter()
{
    static auto* center = new DebugCenter; // never destroyed: other threads log while the process exits
    return *center;
}

void logMessage(const char* format, va_list arguments)
{
    platform::LogSink::log("[DXR] " + CXFormatted(format, arguments));
}

} // namespace

void CXRegisterDebugCenter(CXBlock<bool()> isActive)
{
    const std::scoped_lock lock(debugCenter().mutex);
    debugCenter().isActive = std::move(isActive);
}

bool DXRDebugLogIsActive()
{
    DebugCenter& center = debugCenter();
    std::call_once(center.asked, [&] {
        CXBlock<bool()> isActive;
        {
            const std::scoped_lock lock(center.mutex);
            isActive = center.isActive;
        }
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
    std::vector<std::string> frames = platform::CallStack::symbols(1);
    frames.resize(std::min(frames.size(), mostFramesShown));
    if (format) {
        va_list arguments;
        va_start(arguments, format);
        logMessage(format, arguments);
        va_end(arguments);
    }
    std::for_each(frames.rbegin(), frames.rend(),
                  [](const std::string& frame) { std::fprintf(stderr, "    %s\n", frame.c_str()); });
}
