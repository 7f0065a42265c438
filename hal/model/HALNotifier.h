#pragma once

#include "HALIOEvent.h"

#include "Thread.h"
#include "WorkQueue.h"

#include <memory>
#include <span>

/// The callback of a property listener: a plain function with its data, or a closure with an optional queue.
struct HALListener {
    AudioObjectPropertyListenerProc proc = nullptr;
    void* clientData = nullptr;
    AudioObjectPropertyListenerBlock block;
    CXRef<dxr::WorkQueue> queue;

    friend bool operator==(const HALListener&, const HALListener&) = default;
};

/// The listeners of one model, and the thread that calls them.
///
/// Pending changes are merged by object and address, for the notification thread and for each listener with a
/// queue. So a listener that never returns, or a queue that is never served, does not use more memory with
/// every change. Listeners read the value themselves and so see the latest one.
/// Threads:   any.
/// Real time: postFromIOThread() only.
/// Waits:     only removeListener(), for a call of that listener on another thread. If two listeners remove
///            each other at the same time, they do not deadlock: only the removal that began first waits.
class HALNotifier {
public:
    using Address = AudioObjectPropertyAddress;

    HALNotifier();
    /// Calls stop().
    ~HALNotifier();
    HALNotifier(const HALNotifier&) = delete;
    HALNotifier& operator=(const HALNotifier&) = delete;

    /// Ends the notification thread. No listener without a queue runs afterwards, except a listener that
    /// itself called this. Later posts have no effect.
    void stop();

    /// Returns 'nope' if the same listener was already added for this object and address.
    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener);
    /// Returns 'nope' if there is no such listener.
    HALStatus removeListener(AudioObjectID objectID, const Address& address, const HALListener& listener);

    /// Announces to the listeners of `objectID` that the values at `addresses` have changed. The caller must
    /// have made the new values readable before.
    void post(AudioObjectID objectID, std::span<const Address> addresses);
    /// Like post(), from an IO thread, for the event's object and address. Posts of an event before the
    /// notification thread has taken it are merged.
    void postFromIOThread(const CXRef<HALIOEvent>& event) noexcept CX_REALTIME;
    /// Waits until every change posted before has been delivered to the listeners without a queue. Must not
    /// be called from a listener.
    void flush();

private:
    class Calls;
    class Registration;
    struct Batch;
    struct State; // shared with the thread, which may outlive this if a listener destroys the model

    static void _run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> _state;
    dxr::Thread _thread;
};
