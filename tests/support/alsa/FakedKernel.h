#pragma once

#include "FakedPcm.h"

#include <atomic>
#include <map>
#include <memory>

/// A lock of the faked kernel's own: a program's thread that holds it is in the kernel, where no check of its real-time work
/// looks. A thread of higher priority that waits sleeps, so that the holder can go on.
class FakedLock {
public:
    void lock() noexcept;
    void unlock() noexcept { _isHeld.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _isHeld{false}; // acquired by the exchange that finds it false, released by the store
};

/// The cards, the files that stand for their devices, and the clock's thread.
/// Threads: any; every function takes the lock, but those for the PCMs, called with it.
class FakedKernel {
public:
    static FakedKernel& shared();

    // -- What programs do. Errors are negative; a descriptor that is not a card's is not owned.
    int open(const char* path, int flags);
    /// Without the lock: what is no card's does not wait for one that a sanitizer's report may hold.
    bool owns(int descriptor) const
    {
        const auto place = static_cast<size_t>(descriptor);
        return place < _isOurs.size() && _isOurs[place].load(std::memory_order_acquire);
    }
    void close(int descriptor);
    int ioctl(int descriptor, unsigned long request, void* argument);
    /// The file and place to map; negative: the error.
    int mapped(int descriptor, unsigned long offset, off_t& place);
    /// Before a poll: positions in mapped memory may have moved. False when a signal ends the poll.
    bool look(int descriptor);
    /// What poll() reports besides readiness.
    short pollErrors(int descriptor);

    // -- For the PCMs
    /// Calls `visit` with all that are linked with `pcm`, itself included.
    template <class Visit> void forLinked(const FakedPcm& pcm, Visit visit)
    {
        for (const auto& [descriptor, each] : _pcms)
            if (each.get() == &pcm || (pcm.link && each->link == pcm.link))
                visit(*each);
    }
    /// Links both; a negative errno when that is not possible.
    int link(FakedPcm& pcm, int descriptor);
    void update(FakedCard& card);
    /// A PCM has begun to run.
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

    std::array<std::atomic<bool>, 4096> _isOurs{}; // by descriptor; written under the lock
    FakedLock _lock;                               // guards what follows
    std::map<int, std::unique_ptr<FakedCard>> _cards;
    std::vector<std::unique_ptr<FakedCard>> _gone;  // whose files may still be open
    std::map<int, std::unique_ptr<FakedPcm>> _pcms; // by descriptor
    std::map<int, Control> _controls;
    unsigned _groups = 0;
    bool _hasClock = false;
    const int _wakeUps;
};
