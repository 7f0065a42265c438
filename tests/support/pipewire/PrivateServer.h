#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

/// A PipeWire server of the test's own: its own runtime folder and configuration, no session bus, no
/// environment of the caller's, so that several run side by side. Nobody else can see it.
/// Threads: one. The server ends with the thread that started it.
class PrivateServer {
public:
    struct Options {
        bool metadata = true;        ///< offer the `default` metadata; a session manager brings its own
        uint32_t rate = 48000;       ///< Hz, while no client asks for another
        uint32_t frameCount = 512;   ///< of a cycle, while no client asks for another
        std::string runtimeFolder{}; ///< where the socket goes; a new one when empty
        std::string withoutModule{}; ///< a module not to load, "link-factory"; none when empty
    };

    PrivateServer() : PrivateServer(Options{}) {}
    /// Starts the server unless told not to. Throws std::runtime_error when it does not come up.
    explicit PrivateServer(const Options& options, bool startNow = true);
    /// Kills the server and removes its folder.
    ~PrivateServer();
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

    /// Starts it in the same folder as before and waits for its socket.
    void start();
    /// Asks it to end, and waits until it has.
    void stop();
    /// Ends it with SIGKILL, and waits until it has.
    void kill();
    /// Holds it with SIGSTOP: it keeps its sockets and answers nothing.
    void hang();
    void resume();

    /// The runtime folder; its socket is `pipewire-0`.
    const std::filesystem::path& folder() const noexcept { return _folder; }
    /// What a client gives as remote name to reach this server.
    std::string remote() const { return _folder / "pipewire-0"; }

private:
    void _writeConfiguration(const Options& options) const;
    void _end(int signal);

    const bool _ownsFolder;
    const std::filesystem::path _folder;
    pid_t _process = 0;
};
