#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

/// A private PipeWire server, with a separate runtime folder and configuration, no session bus and none of
/// the caller's environment, so that several can run side by side.
/// Threads: one. The server ends with the thread that started it.
class PrivateServer {
public:
    struct Options {
        /// Starts a WirePlumber that monitors no hardware. Without it, the server has the `default` metadata.
        bool sessionManager = false;
        std::string runtimeFolder{}; ///< folder of the socket; a new one when empty
        std::string withoutModule{}; ///< name of a module to omit, such as "link-factory"
    };

    PrivateServer() : PrivateServer(Options{}) {}
    /// Starts the server unless `startNow` is false. Throws std::runtime_error on failure.
    explicit PrivateServer(Options options, bool startNow = true);
    /// Kills the server and removes its folder.
    ~PrivateServer();
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

    /// Starts the server, in the same folder as before, and waits until its socket accepts connections.
    void start();
    /// Ends the server with SIGKILL and waits until it has ended.
    void kill();
    /// Stops the process: it keeps its sockets and handles no request.
    void hang();
    void resume();

    /// The runtime folder; its socket is `pipewire-0`.
    const std::filesystem::path& folder() const noexcept { return _folder; }
    /// The remote name of this server for clients.
    std::string remote() const { return _folder / "pipewire-0"; }

private:
    void _writeConfiguration() const;
    void _startSessionManager();

    const Options _options;
    const std::filesystem::path _folder;
    pid_t _server = 0, _sessionManager = 0;
};
