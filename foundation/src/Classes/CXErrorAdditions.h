#pragma once

#include "CXError.h"
#include "CXException.h"

#include <string>

/// The error domain of the library and its clients.
DXR_EXPORT extern const std::string CXVeltorrinErrorDomain;
/// User-info key: the user may choose not to see this error again.
DXR_EXPORT extern const std::string CXErrorDontShowAgain;
/// User-info key: the error describes a lasting condition.
DXR_EXPORT extern const std::string CXErrorIsLongLived;
/// User-info key: a presenter must not show details. The spelling is part of the key and stays.
DXR_EXPORT extern const std::string CXErrorSupressesDetailsDisplay;
/// User-info key: an image to show with the error.
DXR_EXPORT extern const std::string CXErrorViewImageKey;

// All functions in this file may be called on any thread, allocate, and may wait for the log. They must not
// be called on an IO thread.

/// Logs the error with its user info, and the calling thread's stack if debugging is enabled. A null error is
/// logged as "(null)".
DXR_EXPORT void CXLogError(const CXRef<CXError>& error);
/// Logs an unhandled exception with the stack of the place where it was created.
DXR_EXPORT void CXLogException(const CXException& exception);

/// Returns true if errors should be logged in more detail: CXSetDebugEnabled(true) was called, or a debugger
/// is attached. Looks for a debugger only once, so one that attaches later is not detected.
DXR_EXPORT bool CXDebugEnabled();
/// Sets the process-wide debug switch, which is initially off.
DXR_EXPORT void CXSetDebugEnabled(bool enabled);

/// Reports a failed assertion: throws a CXException named "CXAssertionFailure". Its reason is "text1 - text2
/// file:line"; null texts are omitted, and a null file is shown as N/A.
[[noreturn]] DXR_EXPORT void _CXFailedAssertion(const char* text1, const char* text2, const char* file,
                                                long line);

/// Throws if `condition` is false, with the method, the condition, the file and the line.
#define CX_ASSERT(condition)                                                                                 \
    (static_cast<bool>(condition) ? static_cast<void>(0)                                                     \
                                  : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),        \
                                                       #condition, __FILE__, __LINE__))
/// Like CX_ASSERT, but reports `text` instead of the condition.
#define CX_ASSERT_SAYING(condition, text)                                                                    \
    (static_cast<bool>(condition)                                                                            \
         ? static_cast<void>(0)                                                                              \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__), text, __FILE__, __LINE__))
