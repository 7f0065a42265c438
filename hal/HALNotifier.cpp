#include "HALNotifier.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

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

/// One listener at one address. A call runs between enter() and leave(); remove() makes enter() fail and
/// waits for the calls that are inside on other threads.
class HALNotifier::Registration final : public CXObject {
public:
    Registration(const Address& at, HALListener who) : address(at), listener(std::move(who)) {}

    const Address address;
    const HALListener listener;

    void call(AudioObjectID objectID, const std::vector<Address>& addresses)
    {
        if (!_enter())
            return;
        const auto count = static_cast<uint32_t>(addresses.size());
        if (listener.proc)
            listener.proc(objectID, count, addresses.data(), listener.clientData);
        else
            listener.block(count, addresses.data());
        _leave();
    }

    void remove()
    {
        std::unique_lock lock(_mutex);
        _removed = true;
        const std::thread::id self = std::this_thread::get_id();
        _left.wait(lock, [&] { return std::ranges::all_of(_inside, [&](auto id) { return id == self; }); });
    }

private:
    bool _enter()
    {
        const std::scoped_lock lock(_mutex);
        if (!_removed)
            _inside.push_back(std::this_thread::get_id());
        return !_removed;
    }

    void _leave()
    {
        const std::scoped_lock lock(_mutex);
        _inside.erase(std::ranges::find(_inside, std::this_thread::get_id()));
        _left.notify_all();
    }

    std::mutex _mutex;
    std::condition_variable _left;
    std::vector<std::thread::id> _inside;
    bool _removed = false;
};

struct HALNotifier::Batch {
    AudioObjectID objectID = kAudioObjectUnknown;
    std::vector<Address> changed; // empty: nothing waits
    std::vector<CXRef<Registration>> listeners;
};

struct HALNotifier::State {
    // Counts everything that could wake the thread; it sleeps on the value it last saw. Posts come before
    // their increment (release) and are read after it (acquire), so none is slept through.
    std::atomic<uint32_t> wakeUps{0};
    // Events of IO threads, last first. Pushed with release by the IO threads, taken whole by the
    // notification thread with acquire: nothing is ever popped alone, so no address can be mistaken for an
    // older one.
    std::atomic<IOEvent*> events{nullptr};
    std::atomic<bool> ended{false};

    std::mutex mutex;
    std::unordered_map<AudioObjectID, std::vector<CXRef<Registration>>> registrations;
    std::unordered_map<AudioObjectID, std::vector<Address>> changes; // what waits, by object
    std::deque<AudioObjectID> order;                                 // the objects that wait, oldest first
    uint64_t posted = 0;
    uint64_t delivered = 0;
    std::condition_variable deliveredMore;

    ~State()
    {
        for (IOEvent* event = events.exchange(nullptr); event;) {
            IOEvent* next = event->_next;
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

    /// What the thread delivers next.
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
        IOEvent* event = events.exchange(nullptr, std::memory_order_acquire);
        while (event) {
            IOEvent* next = event->_next;
            event->_posted.store(false, std::memory_order_release); // from here on it may be posted anew
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
    all.push_back(CXRef<Registration>::adopt(new Registration(address, listener)));
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

void HALNotifier::postFromIOThread(const CXRef<IOEvent>& event) noexcept
{
    if (event->_posted.exchange(true, std::memory_order_acquire)) // pairs with the release in takeEvents()
        return;
    event->retain();
    IOEvent* head = _state->events.load(std::memory_order_relaxed);
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
            each->listener.queue->async([each, id = batch.objectID, matching] { each->call(id, matching); });
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
        batch = {}; // may drop the last reference to a closure: before flush() returns, and without the lock
        const std::scoped_lock lock(state->mutex);
        ++state->delivered;
        state->deliveredMore.notify_all();
    }
    const std::scoped_lock lock(state->mutex);
    state->deliveredMore.notify_all(); // whoever flushes now would wait for ever
}
