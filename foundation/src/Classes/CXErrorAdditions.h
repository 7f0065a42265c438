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

// All functions here may be called from any thread, allocate, and may wait for the log; none is for an IO
// thread.

/// Logs the error with its user info, and the calling thread's stack when debugging is enabled.
/// A null error logs as "(null)".
DXR_EXPORT void CXLogError(const CXRef<CXError>& error);
/// Logs an exception that nobody handled, with the stack where it was made.
DXR_EXPORT void CXLogException(const CXException& exception);

/// Whether errors should say more: CXSetDebugEnabled(true) was called, or a debugger is attached. The
/// debugger is looked for once; one that comes later is not seen.
DXR_EXPORT bool CXDebugEnabled();
/// The process-wide debug switch, off at first.
DXR_EXPORT void CXSetDebugEnabled(bool enabled);

/// Reports a broken promise: throws a CXException named "CXAssertionFailure". Its reason is "text1 - text2
/// file:line", less the texts that are null; a null file reads N/A.
[[noreturn]] DXR_EXPORT void _CXFailedAssertion(const char* text1, const char* text2, const char* file,
                                                long line);

/// Throws when `condition` is false, naming the method, the condition, the file and the line.
#define CX_ASSERT(condition)                                                                                 \
    (static_cast<bool>(condition) ? static_cast<void>(0)                                                     \
                                  : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__),        \
                                                       #condition, __FILE__, __LINE__))
/// The same, where the text to be reported is not that of the condition.
#define CX_ASSERT_SAYING(condition, text)                                                                    \
    (static_cast<bool>(condition)                                                                            \
         ? static_cast<void>(0)                                                                              \
         : _CXFailedAssertion(static_cast<const char*>(__PRETTY_FUNCTION__), text, __FILE__, __LINE__))
