#pragma once

#include "HALBackend.h"

#include "Thread.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

/// The listeners of one backend, and the thread that calls them.
/// Threads:   any.
/// Real time: postFromIOThread() only.
/// Waits:     removeListener() for a call of that listener on another thread; nothing else.
/// Changes that wait for the notification thread are merged by object and address, so that a listener that
/// never returns costs no memory; a listener reads the value itself and so sees the latest.
class HALNotifier {
public:
    using Address = AudioObjectPropertyAddress;

    /// An object that an IO thread can post about without a lock. Belongs to whoever runs IO.
    class IOEvent : public CXObject {
    public:
        AudioObjectID objectID = kAudioObjectUnknown; // set before IO starts
        Address address{};

    private:
        friend class HALNotifier;
        // True from the post until the notification thread has taken the event; only the thread that turned
        // it true may push it, so an event is on the list at most once and `_next` has one writer.
        std::atomic<bool> _posted{false};
        IOEvent* _next = nullptr;
    };

    HALNotifier();
    /// As stop().
    ~HALNotifier();
    HALNotifier(const HALNotifier&) = delete;
    HALNotifier& operator=(const HALNotifier&) = delete;

    /// Ends the notification thread. No listener without a queue runs afterwards, unless this is called by
    /// one. Posts are still taken, and lead nowhere.
    void stop();

    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener);
    HALStatus removeListener(AudioObjectID objectID, const Address& address, const HALListener& listener);

    /// Tells the listeners of `objectID` that the values at `addresses` have changed. The caller has made the
    /// new values readable before.
    void post(AudioObjectID objectID, std::span<const Address> addresses);
    /// The same from an IO thread, for the event's object and address; posts that come before the
    /// notification thread has taken the first are one.
    void postFromIOThread(const CXRef<IOEvent>& event) noexcept CX_REALTIME;
    /// Waits until every change posted before has been delivered to listeners without a queue. Not from a
    /// listener.
    void flush();

private:
    class Registration;
    struct Batch;
    struct State; // shared with the thread, which may outlive us when a listener destroys the backend

    static void _run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> _state;
    platform::Thread _thread;
};
