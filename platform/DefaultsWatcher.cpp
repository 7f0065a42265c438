#include "DefaultsWatcher.h"

#include "DataFolder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace dxr {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds retryInterval{5000};
constexpr std::chrono::milliseconds soonInterval{100};
constexpr std::chrono::milliseconds intervalWithoutEvents{1000};

// A writer touches the database when it has committed; one that dies before that closes its log.
constexpr uint32_t eventsInside = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                                  IN_DELETE | IN_MOVE_SELF | IN_DELETE_SELF;
// Of the folders above, only that the next one appears.
constexpr uint32_t eventsAbove = IN_CREATE | IN_MOVED_TO;

/// Reads and drops everything: that there is an event is enough.
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

void DefaultsWatcher::follow(const CXRef<Client>& suite)
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
        const std::vector<CXRef<Client>> suites = _followed();
        const bool isTimeToRetry = Clock::now() >= nextRetry;
        if (isTimeToRetry)
            nextRetry = Clock::now() + retryInterval;
        bool hasEvents = _folders >= 0 && _wakeUps >= 0;
        bool isNeededSoon = false;
        bool isNeededLater = false;
        for (const CXRef<Client>& suite : suites) {
            hasEvents &= _watch(suite->folder()); // before reading, so that a later change is an event
            const Again again = suite->announceChanges(isTimeToRetry ? Retry::Yes : Retry::No);
            isNeededSoon |= again == Again::Soon;
            isNeededLater |= again == Again::Later;
        }
        if (isNeededSoon)
            std::this_thread::sleep_for(soonInterval); // opening the file in vain is an event, too
        else if (!hasEvents)
            _wait(intervalWithoutEvents);
        else if (isNeededLater)
            _wait(std::chrono::duration_cast<std::chrono::milliseconds>(nextRetry - Clock::now()));
        else
            _wait(std::nullopt);
    }
}

/// False when the system reports no events. Watching a folder again changes nothing.
bool DefaultsWatcher::_watch(const std::string& folder) const
{
    // Outermost first, and again when another one has appeared meanwhile: none appears unseen.
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

/// Until something changes, or for `interval`.
void DefaultsWatcher::_wait(std::optional<std::chrono::milliseconds> interval) const
{
    std::array<pollfd, 2> watched{{{_folders, POLLIN, 0}, {_wakeUps, POLLIN, 0}}};
    const int64_t milliseconds = interval ? std::max<int64_t>(interval->count(), 0) + 1 : -1;
    poll(watched.data(), watched.size(), static_cast<int>(milliseconds));
    drain(_folders);
    drain(_wakeUps);
}

} // namespace dxr
