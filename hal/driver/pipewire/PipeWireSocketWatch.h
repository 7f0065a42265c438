#pragma once

#include "PipeWireLoop.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Reports when a server's socket may have appeared, without looking for it again and again: the kernel
/// reports changes in the folder it will be in, or, while that does not exist, in the nearest folder above
/// that does.
/// Threads: the loop's.
class PipeWireSocketWatch {
public:
    /// Calls `changed` after every change that may concern one of `sockets`.
    PipeWireSocketWatch(PipeWireLoop& loop, std::vector<std::filesystem::path> sockets,
                        PipeWireLoop::Work changed);
    ~PipeWireSocketWatch();
    PipeWireSocketWatch(const PipeWireSocketWatch&) = delete;
    PipeWireSocketWatch& operator=(const PipeWireSocketWatch&) = delete;

    /// Watches, if it does not yet. Returns whether every appearance of a socket from now on is reported: not
    /// when the process has no descriptor left, or the user no watch.
    bool watch();
    /// Whether one of the sockets has a file, with a server behind it or without.
    bool socketExists() const;

    /// Where the server of a remote name (nothing: the user's own) listens, as every client of PipeWire finds
    /// it.
    static std::vector<std::filesystem::path> socketsOfRemote(const std::optional<std::string>& remote);

private:
    bool _watchAll();
    bool _watch(const std::filesystem::path& socket);
    void _readEvents();
    bool _concernsUs(const struct inotify_event& event, const char* name) const;

    PipeWireLoop& _loop;
    const std::vector<std::filesystem::path> _sockets;
    const PipeWireLoop::Work _changed;
    int _descriptor = -1; // closed with its source
    spa_source* _source = nullptr;
    std::multimap<int, std::string> _names; // what is waited for in the folder of each kernel watch
};
