#pragma once

#include "CXWeak.h"
#include "Port.h"
#include "Thread.h"

#include <map>
#include <mutex>

namespace platform {

/// The one thread that watches descriptors for ports, started with the first of them: a port's set sleeps on
/// a word and cannot watch any itself.
/// Threads: any.
class DescriptorWatcher {
public:
    static DescriptorWatcher& shared();

    /// Sends `port` one empty message when `descriptor` becomes readable. False when the system refuses, or
    /// another port has the descriptor.
    bool watch(int descriptor, const CXRef<Port>& port);
    /// Looks at the descriptor again, after a message.
    void rearm(int descriptor, const Port& port);
    void forget(int descriptor, const Port& port);

private:
    DescriptorWatcher();
    void _serve();

    const int _epoll;
    std::mutex _mutex;
    struct Watched {
        const Port* identity; // compared, never used: the weak reference may be past its end
        CXWeak<Port> port;
    };
    std::map<int, Watched> _watched;
    bool _isServing = false;
};

} // namespace platform
