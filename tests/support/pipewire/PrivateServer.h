#pragma once

#include <csignal>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

/// Starts a program whose environment has only PATH, `folder` as home and runtime folder, and `variables`
/// (NAME=value). The program is killed when the calling thread ends. Throws std::runtime_error on failure.
pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables = {});
/// Sends `signal`, also to a stopped process, and waits until it has ended.
void endPrivateProcess(pid_t process, int signal);

/// A private PipeWire server, with a separate runtime folder and configuration, no session bus and none of
/// the caller's environment, so that several can run side by side.
/// Threads: one. The server ends with the thread that started it.
class PrivateServer {
public:
    struct Options {
        /// Starts a WirePlumber that monitors no hardware. Without it, the server has the `default` metadata.
        bool sessionManager = false;
        std::string withoutModule{}; ///< name of a module to omit, such as "link-factory"
    };

    PrivateServer() : PrivateServer(Options{}) {}
    /// Starts the server. Throws std::runtime_error on failure.
    explicit PrivateServer(Options options);
    /// Kills the server and removes its folder.
    ~PrivateServer();
    PrivateServer(const PrivateServer&) = delete;

    /// Starts the server again, in the same folder, and waits until its socket accepts connections.
    void start();
    /// Ends the server with SIGKILL and waits until it has ended.
    void kill();
    /// Stops the process: it keeps its sockets and handles no request.
    void hang() const { ::kill(_server, SIGSTOP); }
    void resume() const { ::kill(_server, SIGCONT); }

    /// The runtime folder, in a private folder; its socket is `pipewire-0`.
    const std::filesystem::path& folder() const noexcept { return _folder; }
    /// The remote name of this server for clients.
    std::string remote() const { return _folder / "pipewire-0"; }

private:
    void _writeConfiguration() const;

    const Options _options;
    const std::filesystem::path _folder;
    pid_t _server = 0, _sessionManager = 0;
};
