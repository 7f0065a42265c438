#include "FolderWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

FolderWatch::FolderWatch(const std::filesystem::path& folder)
    : _descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    inotify_add_watch(_descriptor, folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB);
}

FolderWatch::~FolderWatch()
{
    close(_descriptor);
}

bool FolderWatch::waitUntil(const std::function<bool()>& isTrue, std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    bool changed = true;
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        pollfd readable{_descriptor, POLLIN, 0};
        changed = poll(&readable, 1, changed ? 2 : 100) > 0;
        char events[4096];
        while (read(_descriptor, events, sizeof events) > 0)
            continue;
    }
    return true;
}
