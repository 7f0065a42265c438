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
/// Changes that wait for delivery are merged by object and address, on the notification thread and for each
/// listener with a queue, so that a listener that never returns, or a queue that nobody serves, costs no more
/// memory with every change. A listener reads the value itself and so sees the latest.
/// Threads:   any.
/// Real time: postFromIOThread() only.
/// Waits:     removeListener() for a call of that listener on another thread; nothing else. Two listeners
///            that remove each other at the same time do not wait for each other: the one that began first
///            waits.
class HALNotifier {
public:
    using Address = AudioObjectPropertyAddress;

    HALNotifier();
    /// As stop().
    ~HALNotifier();
    HALNotifier(const HALNotifier&) = delete;
    HALNotifier& operator=(const HALNotifier&) = delete;

    /// Ends the notification thread. No listener without a queue runs afterwards, unless a listener calls
    /// this. Later posts have no effect.
    void stop();

    /// 'nope' when the same listener is there already for this object and address.
    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener);
    /// 'nope' when there is no such listener.
    HALStatus removeListener(AudioObjectID objectID, const Address& address, const HALListener& listener);

    /// Announces to the listeners of `objectID` that the values at `addresses` have changed. The caller has
    /// made the new values readable before.
    void post(AudioObjectID objectID, std::span<const Address> addresses);
    /// The same from an IO thread, for the event's object and address; posts that come before the
    /// notification thread has taken the first are one.
    void postFromIOThread(const CXRef<HALIOEvent>& event) noexcept CX_REALTIME;
    /// Waits until every change posted before has been delivered to listeners without a queue. Not from a
    /// listener.
    void flush();

private:
    class Calls;
    class Registration;
    struct Batch;
    struct State; // shared with the thread, which may outlive us when a listener destroys the model

    static void _run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> _state;
    dxr::Thread _thread;
};
