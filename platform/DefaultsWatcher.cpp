#include "DefaultsWatcher.h"

#include "DataFolder.h"
#include "LogSink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace dxr {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds retryInterval{5000};
constexpr std::chrono::milliseconds soonInterval{100};
constexpr std::chrono::milliseconds intervalWithoutEvents{1000};

// A writer touches the database file after each commit; if it dies before that, closing its log causes an
// event.
constexpr uint32_t eventsInside = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                                  IN_DELETE | IN_MOVE_SELF | IN_DELETE_SELF;
// In the parent folders, only the appearance of the next folder matters.
constexpr uint32_t eventsAbove = IN_CREATE | IN_MOVED_TO;

/// Reads and discards all events; only their presence matters.
void drain(int descriptor)
{
    alignas(inotify_event) std::array<char, 4096> bytes{};
    while (read(descriptor, bytes.data(), bytes.size()) > 0) {
    }
}

} // namespace

DefaultsWatcher& DefaultsWatcher::shared()
{
    static auto& watcher = *new DefaultsWatcher; // never destroyed: its thread runs until the process ends
    return watcher;
}

DefaultsWatcher::DefaultsWatcher()
    : _folders(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), _wakeUps(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{}

void DefaultsWatcher::follow(const CXRef<Client>& suite)
{
    {
        const std::lock_guard lock(_mutex);
        const bool isFollowed = std::ranges::find(_suites, suite) != _suites.end();
        if (isFollowed && _isServing)
            return;
        if (!isFollowed)
            _suites.push_back(suite);
    }
    wake();
}

void DefaultsWatcher::wake()
{
    _start();
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(_wakeUps, &one, sizeof one); // fails only if set already
}

/// Starts the thread unless it runs.
void DefaultsWatcher::_start()
{
    const std::lock_guard lock(_mutex);
    if (_isServing || _suites.empty())
        return;
    try {
        _thread = Thread("dxr-settings", [this] { _serve(); });
        _isServing = true;
    } catch (const std::system_error& error) { // the settings can be used without it; tried again
        if (!std::exchange(_hasComplained, true))
            LogSink::log(std::string("Changes of device settings are not noticed: cannot create a thread: ") +
                         error.code().message());
    }
}

void DefaultsWatcher::_serve()
{
    Clock::time_point nextRetry = Clock::now() + retryInterval;
    for (;;) {
        const std::vector<CXRef<Client>> suites = _followed();
        const bool isTimeToRetry = Clock::now() >= nextRetry;
        if (isTimeToRetry)
            nextRetry = Clock::now() + retryInterval;
        bool hasEvents = _folders >= 0 && _wakeUps >= 0;
        bool isNeededSoon = false;
        bool isNeededLater = false;
        for (const CXRef<Client>& suite : suites) {
            hasEvents &= _watch(suite->folder()); // before reading, so that a later change causes an event
            const Again again = suite->announceChanges(isTimeToRetry ? Retry::Yes : Retry::No);
            isNeededSoon |= again == Again::Soon;
            isNeededLater |= again == Again::Later;
        }
        if (isNeededSoon)
            std::this_thread::sleep_for(soonInterval); // a failed open is an event and would end a poll
        else if (!hasEvents)
            _wait(intervalWithoutEvents);
        else if (isNeededLater)
            _wait(std::chrono::duration_cast<std::chrono::milliseconds>(nextRetry - Clock::now()));
        else
            _wait(std::nullopt);
    }
}

/// Watches the folders for changes of `folder`. Returns false if the system cannot report events. Watching a
/// folder that is watched already has no effect.
bool DefaultsWatcher::_watch(const std::string& folder) const
{
    // Outermost first, and again if a further folder has appeared meanwhile, so that none is missed.
    for (std::vector<std::string> watched; watched != foldersToWatch(folder);) {
        watched = foldersToWatch(folder);
        for (const std::string& each : watched)
            if (inotify_add_watch(_folders, each.c_str(), each == folder ? eventsInside : eventsAbove) < 0 &&
                errno != ENOENT)
                return false;
    }
    return true;
}

std::vector<CXRef<DefaultsWatcher::Client>> DefaultsWatcher::_followed()
{
    const std::lock_guard lock(_mutex);
    return _suites;
}

/// Waits until an event or a wake-up, for at most `interval`.
void DefaultsWatcher::_wait(std::optional<std::chrono::milliseconds> interval) const
{
    std::array<pollfd, 2> watched{{{_folders, POLLIN, 0}, {_wakeUps, POLLIN, 0}}};
    const int64_t milliseconds = interval ? std::max<int64_t>(interval->count(), 0) + 1 : -1;
    poll(watched.data(), watched.size(), static_cast<int>(milliseconds));
    drain(_folders);
    drain(_wakeUps);
}

} // namespace dxr
