#pragma once

/// Ends the test and prints a stack when code inside a CXRealtimeScope allocates, frees, locks or makes a
/// system call that may wait. Linked into every test program. Does nothing outside a scope, inside a
/// CXRealtimeExemption, or under the sanitizers, which interpose the same functions.
/// Threads:   any; only the calling thread's scopes count.
class RealtimeCheck {
public:
    /// Whether violations end this program: false under the sanitizers.
    static bool isActive() noexcept;
};
