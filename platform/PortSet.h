#pragma once

#include "AdaptiveSpin.h"
#include "Futex.h"
#include "Port.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>

namespace dxr {

/// What one thread waits for: messages on any of its ports, its own signal, and a deadline.
/// The signal is a port of its own that holds one empty message: raising it again before it is taken does
/// nothing, so repeated wake-ups cost nothing.
/// Threads:   waitForEvent(), takeMessage(), waitForSignal() and close() on one thread; everything else on
///            any.
/// Real time: signal().
class DXR_EXPORT PortSet final : public PortOwner {
public:
    static CXRef<PortSet> init();

    enum class Event {
        Signal,  ///< it has been taken
        Message, ///< takeMessage() may have one
        Timeout
    };
    /// Waits for the signal or a message until the host clock reads `deadlineTicks`; with a deadline that has
    /// passed, only looks. Signal and messages take turns when both are there.
    Event waitForEvent(uint64_t deadlineTicks = Futex::noDeadline);
    struct Received {
        CXRef<Port> port;
        Port::Message message;
    };
    /// The next message; nothing when none is left. Ports with messages take turns. The caller calls the
    /// port's messageHandled() afterwards.
    std::optional<Received> takeMessage();
    /// Waits for the signal and takes it; messages stay where they are.
    void waitForSignal() noexcept;
    /// Raises the signal. False when the set is closed.
    bool signal() noexcept CX_REALTIME;
    /// Refuses signals from now on, forgets its ports' messages. Whether a signal was pending.
    bool close();

    /// `port` leaves the set it belongs to, if any, and enters this one.
    void add(Port& port);
    /// `port` leaves this set; from another one it is not taken.
    void remove(Port& port);

private:
    PortSet() = default;
    ~PortSet() override = default;

    void portHasMessage(Port& port) override;
    bool _takeSignal() noexcept;
    void _raise(uint32_t bit) noexcept;
    /// Waits until one of `bits` is up; false at the deadline.
    bool _sleepUntil(uint32_t bits, uint64_t deadlineTicks) noexcept;

    // The word that the thread sleeps on. A sender raises a bit and, if the word says
    // that the thread sleeps and the bit is news, wakes it. The thread says that it sleeps by an exchange
    // from "none of my bits", so that a bit raised before is seen and one raised after changes the word under
    // the sleeper. One order for all of it, which is what makes closed against signalled a decision:
    // the bit that comes second sees the other.
    static constexpr uint32_t signalled = 1;
    static constexpr uint32_t hasMessages = 2; // the list below is not empty; changed under the mutex
    static constexpr uint32_t sleeping = 4;
    static constexpr uint32_t closed = 8;
    std::atomic<uint32_t> _word{0};

    AdaptiveSpin _spin;
    bool _isSignalsTurn = true;

    std::mutex _mutex;
    std::deque<CXRef<Port>> _ready; // ports with messages, each once, the one to serve next in front
};

} // namespace dxr
