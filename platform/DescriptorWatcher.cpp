#include "DescriptorWatcher.h"

#include <sys/epoll.h>
#include <system_error>

namespace dxr {

namespace {

// One-shot: the descriptor stays readable until the receiver has read from it, and is then rearmed.
epoll_event eventFor(int descriptor)
{
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.fd = descriptor;
    return event;
}

} // namespace

DescriptorWatcher& DescriptorWatcher::shared()
{
    static auto* const watcher = new DescriptorWatcher; // never destroyed: its thread never ends
    return *watcher;
}

bool DescriptorWatcher::watch(int descriptor, const CXRef<CXObject>& client, Readable readable)
{
    const std::scoped_lock lock(_mutex);
    if (!_start())
        return false;
    epoll_event event = eventFor(descriptor);
    _watched.emplace(descriptor, Watched{client.get(), CXWeak<CXObject>(client), readable});
    if (epoll_ctl(_epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        if (_watched.at(descriptor).identity == client.get())
            _watched.erase(descriptor);
        return false;
    }
    return true;
}

/// Starts the thread unless it runs. Returns false if the system has no descriptor or thread for it; the next
/// call tries again. The caller holds the lock.
bool DescriptorWatcher::_start()
{
    if (_isServing)
        return true;
    if (_epoll < 0)
        _epoll = epoll_create1(EPOLL_CLOEXEC);
    if (_epoll < 0)
        return false;
    try {
        Thread("dxr-descriptors", [this] { _serve(); }).detach();
        _isServing = true;
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void DescriptorWatcher::rearm(int descriptor, const CXObject& client)
{
    const std::scoped_lock lock(_mutex);
    const auto found = _watched.find(descriptor);
    epoll_event event = eventFor(descriptor);
    if (found != _watched.end() && found->second.identity == &client)
        epoll_ctl(_epoll, EPOLL_CTL_MOD, descriptor, &event);
}

void DescriptorWatcher::forget(int descriptor, const CXObject& client)
{
    const std::scoped_lock lock(_mutex);
    const auto found = _watched.find(descriptor);
    if (found == _watched.end() || found->second.identity != &client)
        return;
    epoll_ctl(_epoll, EPOLL_CTL_DEL, descriptor, nullptr);
    _watched.erase(found);
}

void DescriptorWatcher::_serve()
{
    for (;;) {
        epoll_event event{};
        if (epoll_wait(_epoll, &event, 1, -1) != 1)
            continue; // interrupted
        CXRef<CXObject> client;
        Readable readable = nullptr;
        {
            const std::scoped_lock lock(_mutex);
            const auto found = _watched.find(event.data.fd);
            if (found != _watched.end()) {
                client = found->second.client.lock();
                readable = found->second.readable;
            }
        }
        if (client)
            readable(*client);
        // `client` is released here, without the lock: it may be the last reference, and the destructor calls
        // forget().
    }
}

} // namespace dxr
