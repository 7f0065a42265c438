// The functions of the library and its memory.

#include "Arguments.h"
#include "CXMainBundle.h"
#include "DXRVersion.h"
#include "Events.h"
#include "Follower.h"
#include "Guard.h"
#include "HALHardwareDriver.h"
#include "HostClock.h"
#include "LogSink.h"
#include "Packer.h"
#include "Utf8.h"

#include <cstdlib>
#include <exception>
#include <utility>

using namespace dxr_c;

namespace {

/// Ends the object of a handle whose last reference was released; a call on another thread may still hold it.
/// In an audio or log callback the object is ended and destroyed on another thread: a runner would wait for
/// the callback, and memory is freed.
void letGo(CXRef<CXObject> object, bool isRestricted)
{
    auto* const runner = dynamic_cast<Runner*>(object.get());
    if (runner)
        runner->over->isOver = true;
    if (auto* const follower = dynamic_cast<Follower*>(object.get()))
        follower->silence();
    if (object && isRestricted)
        return events().async([kept = std::move(object), runner] {
            if (runner)
                runner->end();
        });
    if (runner)
        runner->end();
}

} // namespace

extern "C" {

const char* dxr_version()
{
    return DXRVersionString();
}

const char* dxr_error_text()
{
    return lastErrorText();
}

uint64_t dxr_now()
{
    return dxr::HostClock::nowTicks();
}

dxr_status dxr_retain(const void* handle)
{
    return guarded(__func__, [&] { Handles::shared().retain(handle); });
}

dxr_status dxr_release(const void* handle)
{
    const bool wasRestricted = std::exchange(isInRestrictedCallback(), false);
    const dxr_status status = guarded(__func__, [&] {
        if (handle)
            letGo(Handles::shared().release(handle), wasRestricted);
    });
    isInRestrictedCallback() = wasRestricted;
    return status;
}

dxr_status dxr_free(const void* memory)
{
    return guarded(__func__, [&] {
        if (!memory)
            return;
        const std::optional<size_t> deviceCount = Handles::shared().removeMemory(memory);
        if (!deviceCount)
            fail(DXR_ERROR_HANDLE, "the memory was freed, or is not from this library");
        std::exception_ptr failure;
        for (size_t i = 0; i < *deviceCount; ++i) {
            try {
                (void)Handles::shared().release(static_cast<dxr_device* const*>(memory)[i]);
            } catch (const Failure&) { // the caller released it too often
                failure = std::current_exception();
            }
        }
        std::free(const_cast<void*>(memory));
        if (failure)
            std::rethrow_exception(failure);
    });
}

dxr_status dxr_set_application(const char* identifier)
{
    return guarded(__func__, [&] { CXSetMainBundleIdentifier(textOf(identifier, "identifier")); });
}

dxr_status dxr_set_log(dxr_log_callback callback, void* user)
{
    return guarded(__func__, [&] {
        if (!callback)
            return dxr::LogSink::setWriter({});
        dxr::LogSink::setWriter([callback, user](std::string_view line) {
            const bool wasRestricted = std::exchange(isInRestrictedCallback(), true); // locks may be held
            callback(dxr::utf8Replaced(line).c_str(), user); // paths in a line may be of any bytes
            isInRestrictedCallback() = wasRestricted;
        });
    });
}

dxr_status dxr_hardware_error(const char** text)
{
    return guarded(__func__, [&] {
        require(text, "text");
        *text = newText(dxr::utf8Replaced(HALHardwareUnavailableReason()));
    });
}

} // extern "C"
