#include "PipeWireSocketWatch.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pipewire/pipewire.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr uint32_t folderEvents =
    IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

constexpr int maxLinks = 40; // of one path, as for the kernel

const char* firstSet(std::initializer_list<const char*> variables)
{
    for (const char* variable : variables) {
        const char* value = std::getenv(variable);
        if (value && *value)
            return value;
    }
    return nullptr;
}

} // namespace

std::vector<fs::path> PipeWireSocketWatch::socketsOfRemote(const std::optional<std::string>& remote)
{
    const char* named = remote ? remote->c_str() : firstSet({"PIPEWIRE_REMOTE"});
    const fs::path name = named ? named : "pipewire-0";
    if (name.is_absolute())
        return {name};
    std::vector<fs::path> sockets;
    if (const char* folder = firstSet({"PIPEWIRE_RUNTIME_DIR", "XDG_RUNTIME_DIR", "USERPROFILE"}))
        sockets.push_back(fs::path(folder) / name);
    sockets.push_back(fs::path("/run/pipewire") / name); // the system-wide server
    return sockets;
}

PipeWireSocketWatch::PipeWireSocketWatch(PipeWireLoop& loop, std::vector<fs::path> sockets,
                                         PipeWireLoop::Work changed)
    : _loop(loop), _sockets(std::move(sockets)), _changed(std::move(changed))
{}

PipeWireSocketWatch::~PipeWireSocketWatch()
{
    for (spa_source* source : {_source, _mounts})
        if (source)
            pw_loop_destroy_source(_loop.get(), source); // closes the descriptor
}

bool PipeWireSocketWatch::watch()
{
    if (!_source) {
        _descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        _source = _addSource(_descriptor, SPA_IO_IN, [](void* self, int, uint32_t) {
            static_cast<PipeWireSocketWatch*>(self)->_readEvents();
        });
    }
    if (_source && !_mounts) // each change is reported as an error
        _mounts = _addSource(
            open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC), SPA_IO_ERR,
            [](void* self, int, uint32_t) { static_cast<PipeWireSocketWatch*>(self)->_mountsChanged(); });
    return _source && _watchAll() && _mounts;
}

/// Calls `changed` for these events of the descriptor, which it takes over. Null on failure.
spa_source* PipeWireSocketWatch::_addSource(int descriptor, uint32_t events,
                                            void (*changed)(void* self, int, uint32_t))
{
    if (descriptor < 0)
        return nullptr;
    spa_source* const source = pw_loop_add_io(_loop.get(), descriptor, events, true, changed, this);
    if (!source)
        close(descriptor);
    return source;
}

bool PipeWireSocketWatch::socketExists() const
{
    return std::ranges::any_of(_sockets, [](const fs::path& socket) {
        std::error_code unreadable;
        return fs::exists(socket, unreadable);
    });
}

bool PipeWireSocketWatch::_watchAll()
{
    std::multimap<int, std::string> before;
    before.swap(_names);
    bool watchesAll = true;
    for (const fs::path& socket : _sockets)
        watchesAll = _watch(socket, maxLinks) && watchesAll;
    for (const auto& [watch, name] : before)
        if (!_names.contains(watch))
            inotify_rm_watch(_descriptor, watch);
    return watchesAll;
}

/// Also watches the target of a link that is the socket or the last part of its path that exists.
bool PipeWireSocketWatch::_watch(const fs::path& socket, int linksLeft)
{
    // Check again after adding the watch: a folder that was created just before would be missed. Give up
    // after three attempts, because a folder may exist that may not be watched.
    for (int look = 0; look < 3; ++look) {
        fs::path waited = socket;
        int watch = -1;
        while (waited.has_relative_path() && watch < 0) {
            watch = inotify_add_watch(_descriptor, waited.parent_path().c_str(), folderEvents);
            if (watch < 0)
                waited = waited.parent_path();
        }
        std::error_code unreadable;
        const bool isSettled = waited == socket || !fs::exists(waited, unreadable);
        if (watch >= 0 && (isSettled || look == 2))
            _names.emplace(watch, waited.filename());
        if (!isSettled)
            continue;
        const fs::path target = fs::read_symlink(waited, unreadable); // empty unless it is a link
        if (watch < 0 || target.empty())
            return watch >= 0;
        const fs::path linked = waited.parent_path() / target;
        const bool isSocket = waited == socket;
        return linksLeft > 0 &&
               _watch(isSocket ? linked : linked / socket.lexically_relative(waited), linksLeft - 1);
    }
    return false;
}

void PipeWireSocketWatch::_mountsChanged()
{
    const std::multimap<int, std::string> before = _names;
    _watchAll();
    if (_names != before) // other mounts are none of our concern
        _changed();
}

void PipeWireSocketWatch::_readEvents()
{
    alignas(inotify_event) char room[4096];
    bool concernsUs = false;
    for (ssize_t size; (size = read(_descriptor, room, sizeof room)) > 0;) {
        for (const char* at = room; at < room + size;) {
            inotify_event event;
            std::memcpy(&event, at, sizeof event);
            concernsUs = concernsUs || _concernsUs(event, event.len > 0 ? at + sizeof event : "");
            at += sizeof event + event.len;
        }
    }
    if (!concernsUs)
        return;
    _watchAll();
    _changed();
}

bool PipeWireSocketWatch::_concernsUs(const inotify_event& event, const char* name) const
{
    if ((event.mask & IN_Q_OVERFLOW) != 0)
        return true; // the kernel has dropped events
    const auto [first, last] = _names.equal_range(event.wd);
    return std::any_of(first, last,
                       [&](const auto& waited) { return event.len == 0 || waited.second == name; });
}
