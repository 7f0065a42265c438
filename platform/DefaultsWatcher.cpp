#include "DefaultsWatcher.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds retryInterval{5};
constexpr std::chrono::seconds intervalWithoutEvents{1};

// A writer touches the database when it has committed; one that dies before that closes its log.
constexpr uint32_t events = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

/// Takes all there is to read; what it says does not matter.
void drain(int descriptor)
{
    alignas(inotify_event) std::array<char, 4096> bytes{};
    while (read(descriptor, bytes.data(), bytes.size()) > 0) {
    }
}

} // namespace

DefaultsWatcher& DefaultsWatcher::shared()
{
    static auto& watcher = *new DefaultsWatcher; // never destroyed: its thread runs to the end
    return watcher;
}

DefaultsWatcher::DefaultsWatcher()
    : _folders(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), _wakeUps(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{}

void DefaultsWatcher::follow(const CXRef<DefaultsSuite>& suite)
{
    const std::lock_guard lock(_mutex);
    if (std::ranges::find(_suites, suite) != _suites.end())
        return;
    _suites.push_back(suite);
    if (_suites.size() == 1)
        _thread = Thread("dxr-settings", [this] { _serve(); });
    else
        wake();
}

void DefaultsWatcher::wake() noexcept
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(_wakeUps, &one, sizeof one); // full is awake, too
}

void DefaultsWatcher::_serve()
{
    Clock::time_point nextRetry = Clock::now() + retryInterval;
    for (;;) {
        const std::vector<CXRef<DefaultsSuite>> suites = _followed();
        const bool isTimeToRetry = Clock::now() >= nextRetry;
        if (isTimeToRetry)
            nextRetry = Clock::now() + retryInterval;
        bool hearsOfChanges = _folders >= 0 && _wakeUps >= 0;
        bool mayStoreLater = false;
        for (const CXRef<DefaultsSuite>& suite : suites) {
            // Before looking, so that what changes meanwhile is heard of. To watch a folder again is nothing.
            const std::string folder = suite->folder();
            if (!folder.empty() && inotify_add_watch(_folders, folder.c_str(), events) < 0)
                hearsOfChanges = false;
            mayStoreLater |=
                suite->announceChanges(isTimeToRetry ? DefaultsSuite::Retry::Yes : DefaultsSuite::Retry::No);
        }
        if (!hearsOfChanges)
            _wait(intervalWithoutEvents);
        else if (mayStoreLater)
            _wait(std::chrono::duration_cast<std::chrono::milliseconds>(nextRetry - Clock::now()));
        else
            _wait(std::nullopt);
    }
}

std::vector<CXRef<DefaultsSuite>> DefaultsWatcher::_followed()
{
    const std::lock_guard lock(_mutex);
    return _suites;
}

/// Until something happens, or for so long.
void DefaultsWatcher::_wait(std::optional<std::chrono::milliseconds> interval) const
{
    std::array<pollfd, 2> watched{{{_folders, POLLIN, 0}, {_wakeUps, POLLIN, 0}}};
    const int64_t milliseconds = interval ? std::max<int64_t>(interval->count(), 0) + 1 : -1;
    poll(watched.data(), watched.size(), static_cast<int>(milliseconds));
    drain(_folders);
    drain(_wakeUps);
}

} // namespace platform
