#pragma once

#include <functional>
#include <string>
#include <systemd/sd-bus.h>

/// One card's name on the session bus, by which sound servers and programs agree who uses the card (the protocol
/// org.freedesktop.ReserveDevice1). Without a session bus nothing is reserved and nothing is refused.
/// Threads: one at a time.
class AlsaReservation {
public:
    explicit AlsaReservation(int cardNumber);
    ~AlsaReservation();
    AlsaReservation(const AlsaReservation&) = delete;
    AlsaReservation& operator=(const AlsaReservation&) = delete;

    /// Asks for the card. 1 when another program has given it up for us just now, 0 when no one else had it, -EBUSY when
    /// another program keeps it. Waits for a bounded time.
    int acquire();
    void release();
    /// Becomes readable when process() has something to do; -1 without a bus.
    int descriptor() const;
    /// Calls `yield` when another program may have the card and asks for it; it returns when the card is closed. Calls
    /// acquire() and release() are allowed in it.
    void process(const std::function<void()>& yield);

private:
    bool _connect();
    void _disconnect();
    bool _askOwner();

    const std::string _name, _path;
    sd_bus* _bus = nullptr;
    bool _isHeld = false;
    sd_bus_message* _request = nullptr; // to release the card, not yet replied to
    static const sd_bus_vtable methods[];
};
