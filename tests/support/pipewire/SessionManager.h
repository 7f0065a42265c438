#pragma once

#include "PrivateServer.h"

/// A WirePlumber of the test's own beside a private server: it chooses the default devices among those there are
/// and honours the ones that clients configure. It looks for no hardware.
/// Threads: one. It ends with the thread that started it.
class SessionManager {
public:
    /// Throws std::runtime_error when its configuration is not installed. The server runs without a `default`
    /// metadata of its own.
    explicit SessionManager(const PrivateServer& server);
    ~SessionManager();
    SessionManager(const SessionManager&) = delete;
    SessionManager& operator=(const SessionManager&) = delete;

private:
    pid_t _process = 0;
};
