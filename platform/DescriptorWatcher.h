#pragma once

#include "CXWeak.h"
#include "Thread.h"

#include <map>
#include <mutex>

namespace dxr {

/// The thread that watches file descriptors for ports, started with the first descriptor. A PortSet cannot
/// watch descriptors itself, because it sleeps on a futex word.
/// Threads: any.
class DescriptorWatcher {
public:
    static DescriptorWatcher& shared();

    using Readable = void (*)(CXObject& client);

    /// Calls `readable` once, on the watcher's thread, when `descriptor` becomes readable, if `client` is
    /// still alive. Returns false if the system refuses to watch it, another client is watching it already,
    /// or its own descriptor or thread cannot be created.
    bool watch(int descriptor, const CXRef<CXObject>& client, Readable readable);
    /// Watches the descriptor for another call, after `readable` was called.
    void rearm(int descriptor, const CXObject& client);
    void forget(int descriptor, const CXObject& client);

private:
    DescriptorWatcher() = default;
    bool _start();
    void _serve();

    std::mutex _mutex;
    int _epoll = -1; // created before the thread, which reads it without the lock, and then constant
    struct Watched {
        const CXObject* identity; // only compared, never dereferenced: the client may have been destroyed
        CXWeak<CXObject> client;
        Readable readable;
    };
    std::map<int, Watched> _watched;
    bool _isServing = false;
};

} // namespace dxr
