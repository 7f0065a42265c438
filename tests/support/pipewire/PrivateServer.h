#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

/// A PipeWire server of the test's own: its own runtime folder and configuration, no session bus and none of the
/// caller's environment, so that several run side by side.
/// Threads: one. The server ends with the thread that started it.
class PrivateServer {
public:
    struct Options {
        /// A WirePlumber beside it, which looks for no hardware; without one the server itself offers the `default`
        /// metadata.
        bool sessionManager = false;
        std::string runtimeFolder{}; ///< where the socket goes; a new one when empty
        std::string withoutModule{}; ///< a module not to load, "link-factory"; none when empty
    };

    PrivateServer() : PrivateServer(Options{}) {}
    /// Starts the server unless `startNow` is false. Throws std::runtime_error on failure.
    explicit PrivateServer(Options options, bool startNow = true);
    /// Kills the server and removes its folder.
    ~PrivateServer();
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

    /// Starts it in the same folder as before and waits for its socket.
    void start();
    /// Ends it with SIGKILL, and waits for its end.
    void kill();
    /// Stops the process: it keeps its sockets and handles no request.
    void hang();
    void resume();

    /// The runtime folder; its socket is `pipewire-0`.
    const std::filesystem::path& folder() const noexcept { return _folder; }
    /// The remote name by which a client reaches this server.
    std::string remote() const { return _folder / "pipewire-0"; }

private:
    void _writeConfiguration() const;
    void _startSessionManager();

    const Options _options;
    const std::filesystem::path _folder;
    pid_t _server = 0, _sessionManager = 0;
};
