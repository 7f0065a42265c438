#pragma once

#include "FakedLibrary.h"
#include "FakedPcm.h"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>

/// The faked kernel's lock. It is not a mutex: a thread that holds it counts as being in the kernel, which
/// the real-time check must not examine. A waiter sleeps, so that a holder of lower priority can proceed.
class FakedLock {
public:
    void lock() noexcept
    {
        while (_isHeld.exchange(true, std::memory_order_acquire)) {
            timespec pause{0, 20'000}; // the kernel changes it
            FakedLibrary::poll(nullptr, 0, &pause);
        }
    }
    void unlock() noexcept { _isHeld.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _isHeld{false}; // acquire: the exchange that finds false; release: the store
};

/// The cards and their open files, by descriptor. Time passes when a program waits for a PCM or uses it.
struct FakedKernel {
    /// An open control device.
    struct Control {
        std::shared_ptr<FakedCard> card;
        std::deque<std::pair<unsigned, unsigned>> changes; // number and mask
    };
    using Guard = std::scoped_lock<FakedLock>;

    /// Takes no lock: calls on other descriptors must not wait for a holder that writes a sanitizer's report.
    bool owns(int descriptor) const
    {
        const auto place = static_cast<size_t>(descriptor);
        return place < isOurs.size() && isOurs[place].load(std::memory_order_acquire);
    }
    /// Tells programs that a control has changed. The caller holds the lock.
    void announce(const FakedCard& card, unsigned control, unsigned mask = SNDRV_CTL_EVENT_MASK_VALUE);
    void unplug(FakedCard& card);                 ///< The caller holds the lock.
    const std::string folder;                     // holds a file for each control device: programs watch them
    std::array<std::atomic<bool>, 4096> isOurs{}; // by descriptor; written under the lock, read without it
    std::atomic<int> haste{1};                    // see FakedCards::hurry()
    FakedLock lock{};                             // guards the fields below
    std::map<int, std::shared_ptr<FakedCard>> cards{};
    std::map<int, std::unique_ptr<FakedPcm>> pcms{};
    std::map<int, Control> controls{};
};

FakedKernel& kernel();
