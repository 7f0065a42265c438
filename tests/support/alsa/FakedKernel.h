#pragma once

#include "FakedPcm.h"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>

/// The faked kernel's lock. It is not a mutex: a thread that holds it counts as being in the kernel, which
/// the real-time check must not examine. A waiter sleeps, so that a holder of lower priority can proceed.
class FakedLock {
public:
    void lock() noexcept;
    void unlock() noexcept { _isHeld.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _isHeld{false}; // acquire: the exchange that finds false; release: the store
};

/// The cards and their open files. Time passes when a program waits for a PCM or uses it.
/// Threads: any. Every function takes the lock.
class FakedKernel {
public:
    static FakedKernel& shared();

    // -- Program calls. Errors are negative; a descriptor that is not a card's is not owned.
    int open(const char* path);
    /// Takes no lock: calls on other descriptors must not wait for a holder that writes a sanitizer's report.
    bool owns(int descriptor) const
    {
        const auto place = static_cast<size_t>(descriptor);
        return place < _isOurs.size() && _isOurs[place].load(std::memory_order_acquire);
    }
    void close(int descriptor);
    int ioctl(int descriptor, unsigned long request, void* argument);
    /// Reads the next change of a control.
    int read(int descriptor, snd_ctl_event& event);
    /// Returns the file to map; a negative error on failure.
    int mapped(int descriptor);
    /// Called before a poll: lowers `next` to the time at which a PCM may become ready. Returns false if a
    /// signal interrupts the poll.
    bool look(int descriptor, int64_t& next);
    /// Events that poll() reports besides readiness.
    short pollErrors(int descriptor);

    const std::string folder; // holds a file for each control device: programs watch them

private:
    friend class FakedCards; // the test's side

    struct Control {
        std::shared_ptr<FakedCard> card;
        int isSubscribed = 0;
        std::deque<unsigned> changes;
    };
    using Guard = std::scoped_lock<FakedLock>;

    FakedKernel();
    int _controlIoctl(Control& control, unsigned long request, void* argument);
    void _announce(const FakedCard& card, unsigned control);

    std::array<std::atomic<bool>, 4096> _isOurs{}; // by descriptor; written under the lock, read without it
    FakedLock _lock;                               // guards the fields below
    std::map<int, std::shared_ptr<FakedCard>> _cards;
    std::map<int, std::unique_ptr<FakedPcm>> _pcms; // by descriptor
    std::map<int, Control> _controls;               // by descriptor
    uint64_t _ioctlCount = 0;
};
