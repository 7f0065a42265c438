#pragma once

#include "PipeWireLoop.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Reports when a server's socket may have appeared, without polling: the kernel reports changes in the
/// socket's folder or, while that does not exist, in the nearest folder above it that does. If a name on the
/// way is a link without a target, the same holds for the target. The kernel reports mounts separately: a
/// folder that is mounted over is still watched, but nothing appears in it any more.
/// Threads: the loop's.
class PipeWireSocketWatch {
public:
    /// Calls `changed` after every change that may concern one of `sockets`.
    PipeWireSocketWatch(PipeWireLoop& loop, std::vector<std::filesystem::path> sockets,
                        PipeWireLoop::Work changed);
    ~PipeWireSocketWatch();
    PipeWireSocketWatch(const PipeWireSocketWatch&) = delete;
    PipeWireSocketWatch& operator=(const PipeWireSocketWatch&) = delete;

    /// Starts watching if it has not yet. Returns whether every socket that appears from now on will be
    /// reported: false if the process has no descriptor left, the user no inotify watch, or /proc is missing.
    bool watch();
    /// Whether the file of one of the sockets exists, with or without a running server.
    bool socketExists() const;

    /// The paths at which the server of a remote name (nullopt: the user's own) may listen, as every PipeWire
    /// client finds it.
    static std::vector<std::filesystem::path> socketsOfRemote(const std::optional<std::string>& remote);

private:
    bool _watchAll();
    bool _watch(const std::filesystem::path& socket, int linksLeft);
    spa_source* _addSource(int descriptor, uint32_t events, void (*changed)(void* self, int, uint32_t));
    void _mountsChanged();
    void _readEvents();
    bool _concernsUs(const struct inotify_event& event, const char* name) const;

    PipeWireLoop& _loop;
    const std::vector<std::filesystem::path> _sockets;
    const PipeWireLoop::Work _changed;
    int _descriptor = -1;          // closed when _source is destroyed
    spa_source* _source = nullptr; // of the inotify events
    spa_source* _mounts = nullptr;
    std::multimap<int, std::string> _names; // the awaited name in the folder of each inotify watch
};
