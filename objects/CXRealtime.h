#pragma once

#include "CXExport.h"

/// On a declaration: an IO thread may call this. It takes no lock, allocates nothing and never waits.
#if defined(__cplusplus) && defined(__has_cpp_attribute)
#if __has_cpp_attribute(clang::nonblocking)
#define CX_REALTIME [[clang::nonblocking]]
#endif
#endif
#ifndef CX_REALTIME
#define CX_REALTIME
#endif

#ifdef __cplusplus

/// Opens a stretch of real-time work on the current thread. It costs one thread-local increment; the tests'
/// checking library watches the count and ends the test at the first allocation, lock or wait below it.
/// Threads:   any. Scopes nest.
/// Real time: yes.
class DXR_EXPORT CXRealtimeScope {
public:
    CXRealtimeScope() noexcept CX_REALTIME;
    ~CXRealtimeScope();
    CXRealtimeScope(const CXRealtimeScope&) = delete;
    CXRealtimeScope& operator=(const CXRealtimeScope&) = delete;

    /// Whether the current thread is in a scope and outside every exemption.
    static bool isChecked() noexcept;
};

/// Suspends the check on the current thread for as long as it lives: an exception to the rule, with its reason.
/// Threads:   any. Exemptions nest.
class DXR_EXPORT CXRealtimeExemption {
public:
    /// `why` is for the reader of the code; it is not kept.
    explicit CXRealtimeExemption(const char* why) noexcept;
    ~CXRealtimeExemption();
    CXRealtimeExemption(const CXRealtimeExemption&) = delete;
    CXRealtimeExemption& operator=(const CXRealtimeExemption&) = delete;
};

#endif // __cplusplus
