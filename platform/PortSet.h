#pragma once

#include "AdaptiveSpin.h"
#include "Futex.h"
#include "Port.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>

namespace dxr {

/// Lets one thread wait for messages on any of its ports, for a signal, and for a deadline. Raising the
/// signal again before it was taken has no effect, so repeated signals are cheap.
/// Threads:   waitForEvent(), takeMessage(), waitForSignal() and close() on one thread; the other functions
///            on any.
/// Real time: signal().
class DXR_EXPORT PortSet final : public PortOwner {
public:
    static CXRef<PortSet> init();

    enum class Event {
        Signal,  ///< the signal, which is taken by the call
        Message, ///< takeMessage() may return a message
        Timeout
    };
    /// Waits for the signal or a message until the host clock reaches `deadlineTicks`; if that has passed
    /// already, returns at once. If the signal and messages are both pending, they are returned alternately.
    Event waitForEvent(uint64_t deadlineTicks = Futex::noDeadline);
    struct Received {
        CXRef<Port> port;
        Port::Message message;
    };
    /// Returns the next message, or nothing if none is pending. Ports with messages take turns. The caller
    /// must then call the port's messageHandled().
    std::optional<Received> takeMessage();
    /// Waits for the signal and takes it; messages stay pending.
    void waitForSignal() noexcept;
    /// Raises the signal. Returns false if the set is closed.
    bool signal() noexcept CX_REALTIME;
    /// Refuses later signals and forgets its ports' messages. Returns true if a signal was pending.
    bool close();

    /// Adds `port`, removing it from the set it belonged to.
    void add(Port& port);
    /// Removes `port`. Does nothing if it belongs to another set.
    void remove(Port& port);

private:
    PortSet() = default;
    ~PortSet() override = default;

    void portHasMessage(Port& port) override;
    bool _takeSignal() noexcept;
    void _raise(uint32_t bit) noexcept;
    /// Waits until one of `bits` is set. Returns false if the deadline passed first.
    bool _sleepUntil(uint32_t bits, uint64_t deadlineTicks) noexcept;

    // The word that the waiting thread sleeps on. A sender sets a bit; if `sleeping` is set and the bit was
    // not, it wakes the thread. The thread sets `sleeping` by a compare-and-swap from a value without the
    // bits it waits for: it sees a bit that was set before, and a bit set later changes the word, so the
    // futex does not sleep. All operations on the word are sequentially consistent: of close() and signal(),
    // the second sees the bit of the first.
    static constexpr uint32_t signalled = 1;
    static constexpr uint32_t hasMessages = 2; // _ready is not empty; changed under the mutex
    static constexpr uint32_t sleeping = 4;
    static constexpr uint32_t closed = 8;
    std::atomic<uint32_t> _word{0};

    AdaptiveSpin _spin;
    bool _isSignalsTurn = true;

    std::mutex _mutex;
    std::deque<CXRef<Port>> _ready; // ports with messages, each once, next to serve first
};

} // namespace dxr
