#pragma once

#include "FakedPcm.h"

#include <atomic>
#include <map>
#include <memory>

/// The faked kernel's lock. It is not a mutex: a thread that holds it counts as being in the kernel, which
/// the real-time check must not examine. A waiter sleeps, so that a holder of lower priority can proceed.
class FakedLock {
public:
    void lock() noexcept;
    void unlock() noexcept { _isHeld.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _isHeld{false}; // acquire: the exchange that finds false; release: the store
};

/// The cards, the files that represent their devices, and the clock thread.
/// Threads: any. Every function takes the lock, except those for the PCMs, whose callers hold it.
class FakedKernel {
public:
    static FakedKernel& shared();

    // -- Program calls. Errors are negative; a descriptor that is not a card's is not owned.
    int open(const char* path, int flags);
    /// Takes no lock: calls on other descriptors must not wait for a holder that writes a sanitizer's report.
    bool owns(int descriptor) const
    {
        const auto place = static_cast<size_t>(descriptor);
        return place < _isOurs.size() && _isOurs[place].load(std::memory_order_acquire);
    }
    void close(int descriptor);
    int ioctl(int descriptor, unsigned long request, void* argument);
    /// Returns the file to map and sets the offset in it; a negative error on failure.
    int mapped(int descriptor, unsigned long offset, off_t& place);
    /// Called before a poll, since positions in mapped memory may have moved. Returns false if a signal
    /// interrupts the poll.
    bool look(int descriptor);
    /// Events that poll() reports besides readiness.
    short pollErrors(int descriptor);

    // -- For the PCMs
    /// Calls `visit` with each PCM that is linked with `pcm`, including `pcm`.
    template <class Visit> void forLinked(const FakedPcm& pcm, Visit visit)
    {
        for (const auto& [descriptor, each] : _pcms)
            if (each.get() == &pcm || (pcm.link && each->link == pcm.link))
                visit(*each);
    }
    /// Links both PCMs; returns a negative errno on failure.
    int link(FakedPcm& pcm, int descriptor);
    void update(FakedCard& card);
    /// Must be called when a PCM has started.
    void clockNeeded();

    const std::string folder;
    std::atomic<uint64_t> ioctlCount{0};

private:
    friend class FakedCards; // the test's side

    struct Control {
        FakedCard* card;
        int descriptor, peer;
        int isSubscribed;
    };
    struct Guard {
        explicit Guard(FakedLock& held) : lock(held) { lock.lock(); }
        ~Guard() { lock.unlock(); }
        FakedLock& lock;
    };

    FakedKernel();
    void _makeFiles(const FakedCard& card, bool isThere) const;
    int _openControl(FakedCard& card, int flags);
    int _openPcm(FakedCard& card, unsigned pcm, bool isCapture, int flags);
    int _controlIoctl(Control& control, unsigned long request, void* argument);
    void _announce(FakedCard& card, unsigned control);
    void _wakeClock() const;
    void _runClock();

    std::array<std::atomic<bool>, 4096> _isOurs{}; // by descriptor; written under the lock, read without it
    FakedLock _lock;                               // guards the fields below
    std::map<int, std::unique_ptr<FakedCard>> _cards;
    std::vector<std::unique_ptr<FakedCard>> _gone;  // unplugged; their files may still be open
    std::map<int, std::unique_ptr<FakedPcm>> _pcms; // by descriptor
    std::map<int, Control> _controls;
    unsigned _groups = 0;
    bool _hasClock = false;
    const int _wakeUps;
};
