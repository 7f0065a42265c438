#pragma once

#include "CXWeak.h"
#include "Thread.h"

#include <map>
#include <mutex>

namespace dxr {

/// The thread that watches descriptors for ports, started with the first of them: a port's set sleeps on a word
/// and cannot watch any itself.
/// Threads: any.
class DescriptorWatcher {
public:
    static DescriptorWatcher& shared();

    using Readable = void (*)(CXObject& client);

    /// Calls `readable` once, on the watcher's thread, when `descriptor` becomes readable, if `client` is still alive.
    /// False when the system refuses, or another client has the descriptor.
    bool watch(int descriptor, const CXRef<CXObject>& client, Readable readable);
    /// Looks at the descriptor again, after a call.
    void rearm(int descriptor, const CXObject& client);
    void forget(int descriptor, const CXObject& client);

private:
    DescriptorWatcher();
    void _serve();

    const int _epoll;
    std::mutex _mutex;
    struct Watched {
        const CXObject* identity; // compared, never used: the weak reference may be past its end
        CXWeak<CXObject> client;
        Readable readable;
    };
    std::map<int, Watched> _watched;
    bool _isServing = false;
};

} // namespace dxr
