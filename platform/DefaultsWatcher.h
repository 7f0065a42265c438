#pragma once

#include "CXRef.h"
#include "Thread.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace dxr {

/// The one thread that watches the suites' folders for writers in other processes and calls the observers,
/// started with the first observer.
/// Threads: any.
class DefaultsWatcher {
public:
    enum class Retry { No, Yes };
    enum class Again { Never, Soon, Later };
    /// What is watched: a suite.
    class Client : public CXObject {
    public:
        /// Reads changes of other processes, tries again to store what could not be stored if `retry` says so, and calls
        /// the observers of every key that changed since the last time. Returns when to try again.
        virtual Again announceChanges(Retry retry) = 0;
        /// The folder in which changes of other processes show, which need not exist; empty while there is none.
        virtual std::string folder() = 0;
    };

    static DefaultsWatcher& shared();

    /// Watches a suite from now on.
    void follow(const CXRef<Client>& suite);
    /// Something changed in this process.
    void wake() noexcept;

private:
    DefaultsWatcher();
    void _serve();
    bool _watch(const std::string& folder) const;
    std::vector<CXRef<Client>> _followed();
    void _wait(std::optional<std::chrono::milliseconds> interval) const;

    const int _folders; // inotify; -1 when the system has none left
    const int _wakeUps; // eventfd
    std::mutex _mutex;  // guards the two below
    std::vector<CXRef<Client>> _suites;
    Thread _thread;
};

} // namespace dxr
