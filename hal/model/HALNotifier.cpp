#include "HALNotifier.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

bool matches(const AudioObjectPropertyAddress& pattern, const AudioObjectPropertyAddress& changed)
{
    return (pattern.selector == changed.selector ||
            pattern.selector == kAudioObjectPropertySelectorWildcard) &&
           (pattern.scope == changed.scope || pattern.scope == kAudioObjectPropertyScopeWildcard ||
            changed.scope == kAudioObjectPropertyScopeWildcard) &&
           (pattern.element == changed.element || pattern.element == kAudioObjectPropertyElementWildcard);
}

} // namespace

/// Which threads are inside which listener, and which threads wait for a listener to return.
///
/// Protocol, under the one mutex: a call enters a registration unless it was removed, and leaves it
/// afterwards. A removal marks the registration and waits until no other thread is inside it. It does not
/// wait for threads that wait, directly or through others, for this thread to leave a listener: their
/// removals can return only after this one. The thread whose wait would complete such a circle sees the whole
/// circle and does not wait, so the others can proceed as well.
class HALNotifier::Calls {
public:
    bool enter(const Registration& registration);
    void leave(const Registration& registration);
    void remove(const Registration& registration);

    std::mutex mutex; // also guards the fields of every registration

private:
    using ThreadID = std::thread::id;
    bool _waitsFor(ThreadID waiter, ThreadID target) const;

    std::condition_variable _left;
    std::unordered_map<ThreadID, const Registration*> _waiting;
};

/// One listener at one address of one object.
class HALNotifier::Registration final : public CXObject {
public:
    Registration(const Address& at, HALListener who, std::shared_ptr<Calls> calls)
        : address(at), listener(std::move(who)), _calls(std::move(calls))
    {}

    const Address address;
    const HALListener listener;

    void call(AudioObjectID objectID, const std::vector<Address>& addresses)
    {
        if (!_calls->enter(*this))
            return;
        const auto count = static_cast<uint32_t>(addresses.size());
        if (listener.proc)
            listener.proc(objectID, count, addresses.data(), listener.clientData);
        else
            listener.block(count, addresses.data());
        _calls->leave(*this);
    }

    /// Calls the listener on its queue. Changes before the queue runs the call are merged into it.
    void callOnQueue(AudioObjectID objectID, const std::vector<Address>& addresses)
    {
        {
            const std::scoped_lock lock(_calls->mutex);
            const bool isQueued = !pending.empty();
            for (const Address& each : addresses)
                if (std::ranges::find(pending, each) == pending.end())
                    pending.push_back(each);
            if (isQueued)
                return;
        }
        listener.queue->async([self = CXRef(this), objectID] {
            std::vector<Address> changed;
            {
                const std::scoped_lock lock(self->_calls->mutex);
                changed.swap(self->pending);
            }
            self->call(objectID, changed);
        });
    }

    void remove() { _calls->remove(*this); }

    // Guarded by the mutex of the calls.
    mutable std::vector<std::thread::id> inside;
    mutable bool isRemoved = false;
    std::vector<Address> pending; // for the queued call; empty if no call is queued

private:
    const std::shared_ptr<Calls> _calls;
};

bool HALNotifier::Calls::enter(const Registration& registration)
{
    const std::scoped_lock lock(mutex);
    if (!registration.isRemoved)
        registration.inside.push_back(std::this_thread::get_id());
    return !registration.isRemoved;
}

void HALNotifier::Calls::leave(const Registration& registration)
{
    const std::scoped_lock lock(mutex);
    registration.inside.erase(std::ranges::find(registration.inside, std::this_thread::get_id()));
    _left.notify_all();
}

void HALNotifier::Calls::remove(const Registration& registration)
{
    const ThreadID self = std::this_thread::get_id();
    std::unique_lock lock(mutex);
    registration.isRemoved = true;
    _waiting[self] = &registration;
    _left.wait(lock, [&] {
        return std::ranges::all_of(registration.inside,
                                   [&](ThreadID id) { return id == self || _waitsFor(id, self); });
    });
    _waiting.erase(self);
}

bool HALNotifier::Calls::_waitsFor(ThreadID waiter, ThreadID target) const
{
    std::vector<ThreadID> seen{waiter};
    for (size_t next = 0; next < seen.size(); ++next) {
        const auto waiting = _waiting.find(seen[next]);
        if (waiting == _waiting.end())
            continue;
        for (const ThreadID blocker : waiting->second->inside) {
            if (blocker == target)
                return true;
            if (std::ranges::find(seen, blocker) == seen.end())
                seen.push_back(blocker);
        }
    }
    return false;
}

struct HALNotifier::Batch {
    AudioObjectID objectID = kAudioObjectUnknown;
    std::vector<Address> changed; // empty: no change is pending
    std::vector<CXRef<Registration>> listeners;
};

struct HALNotifier::State {
    // Counts every event that may wake the thread, which sleeps on the value it last saw. Changes are stored
    // before the increment (release) and read after it (acquire), so none is missed.
    std::atomic<uint32_t> wakeUps{0};
    // Events of IO threads, latest first. IO threads push with release; the notification thread takes the
    // whole list with acquire. Because no single event is ever popped, the list has no ABA problem.
    std::atomic<HALIOEvent*> events{nullptr};
    std::atomic<bool> ended{false};

    const std::shared_ptr<Calls> calls = std::make_shared<Calls>();
    std::mutex mutex; // guards what follows; never held while a listener runs
    std::unordered_map<AudioObjectID, std::vector<CXRef<Registration>>> registrations;
    std::unordered_map<AudioObjectID, std::vector<Address>> changes; // pending, by object
    std::deque<AudioObjectID> order;                                 // the objects in `changes`, oldest first
    uint64_t posted = 0;
    uint64_t delivered = 0;
    std::condition_variable deliveredMore;

    ~State()
    {
        for (HALIOEvent* event = events.exchange(nullptr); event;) {
            HALIOEvent* next = event->_next;
            event->release();
            event = next;
        }
    }

    void wake() noexcept
    {
        wakeUps.fetch_add(1, std::memory_order_release);
        wakeUps.notify_one();
    }

    /// The lock is held.
    void add(AudioObjectID objectID, std::span<const Address> addresses)
    {
        std::vector<Address>& waiting = changes[objectID];
        if (waiting.empty()) {
            order.push_back(objectID);
            ++posted;
        }
        for (const Address& address : addresses) {
            if (std::ranges::find(waiting, address) == waiting.end())
                waiting.push_back(address);
        }
    }

    /// The next changes to deliver.
    Batch next()
    {
        const std::scoped_lock lock(mutex);
        takeEvents();
        if (order.empty())
            return {};
        Batch batch;
        batch.objectID = order.front();
        order.pop_front();
        batch.changed = std::move(changes.extract(batch.objectID).mapped());
        if (const auto found = registrations.find(batch.objectID); found != registrations.end())
            batch.listeners = found->second;
        return batch;
    }

    static void deliver(const Batch& batch);

    /// The lock is held.
    void takeEvents()
    {
        HALIOEvent* event = events.exchange(nullptr, std::memory_order_acquire);
        while (event) {
            HALIOEvent* next = event->_next;
            event->_posted.store(false, std::memory_order_release); // may be posted again from here on
            const Address address = event->address;
            add(event->objectID, std::span(&address, 1));
            event->release();
            event = next;
        }
    }
};

HALNotifier::HALNotifier()
    : _state(std::make_shared<State>()), _thread("dxr-notify", [state = _state] { _run(state); })
{}

HALNotifier::~HALNotifier()
{
    stop();
}

void HALNotifier::stop()
{
    _state->ended.store(true);
    _state->wake();
    _thread.join();
}

HALStatus HALNotifier::addListener(AudioObjectID objectID, const Address& address,
                                   const HALListener& listener)
{
    const std::scoped_lock lock(_state->mutex);
    auto& all = _state->registrations[objectID];
    const bool known = std::ranges::any_of(
        all, [&](const auto& one) { return one->address == address && one->listener == listener; });
    if (known)
        return kAudioHardwareIllegalOperationError;
    all.push_back(CXRef<Registration>::adopt(new Registration(address, listener, _state->calls)));
    return kAudioHardwareNoError;
}

HALStatus HALNotifier::removeListener(AudioObjectID objectID, const Address& address,
                                      const HALListener& listener)
{
    CXRef<Registration> found;
    {
        const std::scoped_lock lock(_state->mutex);
        const auto object = _state->registrations.find(objectID);
        if (object == _state->registrations.end())
            return kAudioHardwareIllegalOperationError;
        auto& all = object->second;
        const auto one = std::ranges::find_if(
            all, [&](const auto& each) { return each->address == address && each->listener == listener; });
        if (one == all.end())
            return kAudioHardwareIllegalOperationError;
        found = std::move(*one);
        all.erase(one);
        if (all.empty())
            _state->registrations.erase(object);
    }
    found->remove();
    return kAudioHardwareNoError;
}

void HALNotifier::post(AudioObjectID objectID, std::span<const Address> addresses)
{
    if (addresses.empty())
        return;
    {
        const std::scoped_lock lock(_state->mutex);
        _state->add(objectID, addresses);
    }
    _state->wake();
}

void HALNotifier::postFromIOThread(const CXRef<HALIOEvent>& event) noexcept
{
    if (event->_posted.exchange(true, std::memory_order_acquire)) // pairs with the release in takeEvents()
        return;
    event->retain();
    HALIOEvent* head = _state->events.load(std::memory_order_relaxed);
    do {
        event->_next = head;
    } while (!_state->events.compare_exchange_weak(head, event.get(), std::memory_order_release,
                                                   std::memory_order_relaxed));
    _state->wake();
}

void HALNotifier::flush()
{
    std::unique_lock lock(_state->mutex);
    _state->takeEvents();
    const uint64_t upTo = _state->posted;
    _state->wake();
    _state->deliveredMore.wait(lock, [&] { return _state->delivered >= upTo || _state->ended.load(); });
}

void HALNotifier::State::deliver(const Batch& batch)
{
    for (const CXRef<Registration>& each : batch.listeners) {
        std::vector<Address> matching;
        std::ranges::copy_if(batch.changed, std::back_inserter(matching),
                             [&](const Address& address) { return matches(each->address, address); });
        if (matching.empty())
            continue;
        if (each->listener.queue)
            each->callOnQueue(batch.objectID, matching);
        else
            each->call(batch.objectID, matching);
    }
}

void HALNotifier::_run(const std::shared_ptr<State>& state)
{
    while (!state->ended.load()) {
        const uint32_t seen = state->wakeUps.load(std::memory_order_acquire);
        Batch batch = state->next();
        if (batch.changed.empty()) {
            state->wakeUps.wait(seen, std::memory_order_acquire);
            continue;
        }
        State::deliver(batch);
        batch = {}; // may destroy a closure: without the lock, and before flush() returns
        const std::scoped_lock lock(state->mutex);
        ++state->delivered;
        state->deliveredMore.notify_all();
    }
    const std::scoped_lock lock(state->mutex);
    state->deliveredMore.notify_all(); // a flush() now would wait forever
}
