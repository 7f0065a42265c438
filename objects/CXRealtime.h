#pragma once

#include "CXExport.h"

/// On a function declaration: an IO thread may call it. The function takes no lock, does not allocate and
/// never waits.
#if defined(__cplusplus) && defined(__has_cpp_attribute)
#if __has_cpp_attribute(clang::nonblocking)
#define CX_REALTIME [[clang::nonblocking]]
#endif
#endif
#ifndef CX_REALTIME
#define CX_REALTIME
#endif

#ifdef __cplusplus

/// Marks a section of real-time work on the current thread. It costs one increment of a thread-local counter.
/// The tests' checking library reads the counter and ends the test at the first allocation, lock or wait
/// within a scope.
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

/// Suspends the check on the current thread until it is destroyed: an exception to the rule, with its reason.
/// Threads:   any. Exemptions nest.
class DXR_EXPORT CXRealtimeExemption {
public:
    /// `why` documents the reason in the source code; it is not stored.
    explicit CXRealtimeExemption(const char* why) noexcept;
    ~CXRealtimeExemption();
    CXRealtimeExemption(const CXRealtimeExemption&) = delete;
    CXRealtimeExemption& operator=(const CXRealtimeExemption&) = delete;
};

#endif // __cplusplus
