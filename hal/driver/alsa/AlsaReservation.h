#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/// A card's reservation: its name on the session bus, by which sound servers and programs agree who uses the
/// card (the protocol org.freedesktop.ReserveDevice1). Without a session bus, every request succeeds and
/// nothing is reserved.
/// Threads: any.
class AlsaReservation {
public:
    explicit AlsaReservation(int cardNumber);
    ~AlsaReservation();
    AlsaReservation(const AlsaReservation&) = delete;
    AlsaReservation& operator=(const AlsaReservation&) = delete;

    /// A user of the reserved card.
    class Holder {
    public:
        /// Closes the card soon, because another program requests it, and calls release(). Does not wait.
        virtual void yield() = 0;

    protected:
        ~Holder() = default;
    };

    /// Reserves the card. Returns 1 if another program has just released it, 0 if no other program had it,
    /// -EBUSY if another program keeps it. Waits for a bounded time. The caller may call release() in every
    /// case.
    int acquire(Holder& holder);
    void release(Holder& holder);
    /// Readable when process() has messages to process; -1 without a bus.
    int descriptor();
    /// Replies to another program's request for the card: waits, for a bounded time, until every holder has
    /// closed the card.
    void process();

private:
    bool _connect();
    void _disconnect();
    int _acquireName();

    const std::string _name, _path;
    std::mutex _mutex; // guards what follows
    std::condition_variable _released;
    std::vector<Holder*> _holders;
    sd_bus* _bus = nullptr;
    sd_bus_message* _request = nullptr; // a request to release the card, not yet replied to
    static const sd_bus_vtable methods[];
};
