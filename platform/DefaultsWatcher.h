#pragma once

#include "DefaultsSuite.h"
#include "Thread.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// The one thread that watches the suites' folders for writers in other processes and calls the observers,
/// started with the first observer.
/// Threads: any.
class DefaultsWatcher {
public:
    static DefaultsWatcher& shared();

    /// Watches a suite from now on.
    void follow(const CXRef<DefaultsSuite>& suite);
    /// Something changed in this process.
    void wake() noexcept;

private:
    DefaultsWatcher();
    void _serve();
    bool _watch(const std::string& folder) const;
    std::vector<CXRef<DefaultsSuite>> _followed();
    void _wait(std::optional<std::chrono::milliseconds> interval) const;

    const int _folders; // inotify; -1 when the system has none left
    const int _wakeUps; // eventfd
    std::mutex _mutex;  // guards the two below
    std::vector<CXRef<DefaultsSuite>> _suites;
    Thread _thread;
};

} // namespace platform
