#pragma once

#include "Handles.h"
#include "Runner.h"

#include <exception>
#include <new>
#include <system_error>

namespace dxr_c {

/// Keeps the text of an error for dxr_error_text() on this thread, and returns `status`.
dxr_status noteError(dxr_status status, const char* function, const char* text) noexcept;
/// The text of this thread's last error.
const char* lastErrorText() noexcept;
/// Notes that the library is used, so that a child of fork() can be recognised.
void prepareForFork();
/// Whether the process is a child of fork() of one that used the library: its threads are missing.
bool isForkedCopy() noexcept;

/// Runs the body of a function of the interface; catches everything it throws.
template <class Body> dxr_status guarded(const char* function, const Body& body) noexcept
{
    if (isForkedCopy())
        return noteError(DXR_ERROR_FORKED, function, "the process is a fork() of one that used dxr");
    if (isInRestrictedCallback())
        return noteError(DXR_ERROR_THREAD, function, "not to be called in an audio or log callback");
    try {
        prepareForFork();
        body();
        return DXR_OK;
    } catch (const Failure& failure) {
        return noteError(failure.status, function, failure.text.c_str());
    } catch (const std::bad_alloc&) {
        return noteError(DXR_ERROR_MEMORY, function, "not enough memory");
    } catch (const std::system_error& error) {
        return noteError(DXR_ERROR_MEMORY, function, error.what());
    } catch (const std::exception& error) {
        return noteError(DXR_ERROR_INTERNAL, function, error.what());
    } catch (...) {
        return noteError(DXR_ERROR_INTERNAL, function, "unknown exception");
    }
}

} // namespace dxr_c
