#include "CXErrorAdditions.h"

#include "CXStackTrace.h"
#include "DebuggerCheck.h"
#include "LogSink.h"

#include <atomic>
#include <cstdint>

const std::string CXVeltorrinErrorDomain = "VeltorrinErrorDomain";
const std::string CXErrorDontShowAgain = "CXErrorDontShowAgain";
const std::string CXErrorIsLongLived = "CXErrorIsLongLived";
const std::string CXErrorSupressesDetailsDisplay = "CXErrorSupressesDetailsDisplay";
const std::string CXErrorViewImageKey = "CXErrorViewImageKey";

namespace {

constexpr uint32_t notYetKnown = UINT32_MAX;

// Any thread may find the value unknown and determine it. Relaxed is sufficient, because all threads store
// the same value.
std::atomic<uint32_t> debuggerAttached{notYetKnown};
std::atomic<bool> debugSwitch{false};

bool askForDebugger()
{
    const std::optional<bool> attached = dxr::isDebuggerAttached();
    if (!attached)
        _CXFailedAssertion("AmIBeingDebugged", "junk == 0", "CXErrorAdditions", 62);
    return *attached;
}

std::string userInfoText(const CXError::UserInfo& userInfo)
{
    std::string text = "{";
    for (const auto& [key, value] : userInfo)
        text += "\n    " + key + " = " + (value ? value->description() : "(null)") + ";";
    return text + (userInfo.empty() ? "}" : "\n}");
}

} // namespace

void CXLogError(const CXRef<CXError>& error)
{
    if (error)
        dxr::LogSink::log("Error: " + error->description() + " (" + userInfoText(error->userInfo()) + ")");
    else
        dxr::LogSink::log("Error: (null)");
    if (CXDebugEnabled())
        dxr::LogSink::log("     : " + CXStackTrace::fromCurrentStack()->description());
}

void CXLogException(const CXException& exception)
{
    dxr::LogSink::log("Error: Unhandled exception:\nDescription: " + exception.description() +
                      "\n Stack Trace:\n" + CXStackTrace::fromException(exception)->description());
}

bool CXDebugEnabled()
{
    if (debugSwitch.load(std::memory_order_relaxed))
        return true;
    uint32_t attached = debuggerAttached.load(std::memory_order_relaxed);
    if (attached == notYetKnown) {
        attached = askForDebugger() ? 1 : 0;
        debuggerAttached.store(attached, std::memory_order_relaxed);
    }
    return attached != 0;
}

void CXSetDebugEnabled(bool enabled)
{
    debugSwitch.store(enabled, std::memory_order_relaxed);
}

void _CXFailedAssertion(const char* text1, const char* text2, const char* file, long line)
{
    std::string reason;
    if (text1)
        reason += std::string(text1) + (text2 ? " - " : " ");
    if (text2)
        reason += std::string(text2) + " ";
    throw CXException("CXAssertionFailure", reason + (file ? file : "N/A") + ":" + std::to_string(line));
}
