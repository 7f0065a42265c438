#pragma once

/// Ends the test, with a stack, when code inside a CXRealtimeScope allocates, frees, takes a lock or calls
/// the system where that may wait. Every test program of the project carries it; it does nothing outside a
/// scope, inside a CXRealtimeExemption, or under the sanitizers, which interpose the same functions.
/// Threads:   any; each is judged by its own scopes.
class RealtimeCheck {
public:
    /// Whether violations end this program: false under the sanitizers.
    static bool isActive() noexcept;
};
