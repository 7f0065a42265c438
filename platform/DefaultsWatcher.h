#pragma once

#include "CXRef.h"
#include "Thread.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace dxr {

/// The thread that watches the suites' folders for changes by other processes and calls the observers. There
/// is one per process, started with the first suite. If the thread cannot be created, that is logged once and
/// tried again with each call.
/// Threads: any.
class DefaultsWatcher {
public:
    enum class Retry { No, Yes };
    enum class Again { Never, Soon, Later };
    /// Implemented by the suites.
    class Client : public CXObject {
    public:
        /// Reads changes by other processes, tries again to store unsaved changes if `retry` is Yes, and
        /// calls the observers of every key that changed since the last call. Returns when to call again.
        virtual Again announceChanges(Retry retry) = 0;
        /// The folder to watch, which may not exist; empty if no valid path is known.
        virtual std::string folder() = 0;
    };

    static DefaultsWatcher& shared();

    /// Starts watching a suite. Does nothing if it is watched already.
    void follow(const CXRef<Client>& suite);
    /// Tells the thread that this process has changed a suite.
    void wake();
    /// Whether the thread was started.
    bool isServing() const noexcept { return _isServing; }

private:
    DefaultsWatcher();
    void _start();
    void _serve();
    bool _watch(const std::string& folder) const;
    std::vector<CXRef<Client>> _followed();
    void _wait(std::optional<std::chrono::milliseconds> interval) const;

    const int _folders; // inotify; -1 if it could not be created
    const int _wakeUps; // eventfd
    std::mutex _mutex;  // guards the fields below
    std::vector<CXRef<Client>> _suites;
    Thread _thread;
    std::atomic<bool> _isServing{false}; // written with the lock
    bool _hasComplained = false;
};

} // namespace dxr
