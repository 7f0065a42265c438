#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/// One card's name on the session bus, by which sound servers and programs agree who uses the card (the protocol
/// org.freedesktop.ReserveDevice1). Without a session bus nothing is reserved and nothing is refused.
/// Threads: any.
class AlsaReservation {
public:
    explicit AlsaReservation(int cardNumber);
    ~AlsaReservation();
    AlsaReservation(const AlsaReservation&) = delete;
    AlsaReservation& operator=(const AlsaReservation&) = delete;

    /// Uses the card while it has it reserved.
    class Holder {
    public:
        /// Closes the card soon, for another program, and calls release(). Does not wait.
        virtual void yield() = 0;

    protected:
        ~Holder() = default;
    };

    /// Asks for the card. 1 when another program has given it up for us just now, 0 when no other program had it, -EBUSY
    /// when another program keeps it. Waits for a bounded time. release() may follow in every case.
    int acquire(Holder& holder);
    void release(Holder& holder);
    /// Becomes readable when process() has something to do; -1 without a bus.
    int descriptor();
    /// Lets another program have the card that asks for it: waits, for a bounded time, until every holder has closed it.
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
    sd_bus_message* _request = nullptr; // to release the card, not yet replied to
    static const sd_bus_vtable methods[];
};
