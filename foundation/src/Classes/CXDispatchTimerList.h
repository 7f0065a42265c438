#pragma once

#include "CXDispatchMember.h"
#include "Futex.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

/// The timers of a dispatch queue, ordered by deadline; timers with equal deadlines in the order they were
/// scheduled.
/// Threads:   one at a time, which must hold the right to run the queue's work; firstDeadline() on any.
/// Real time: reschedule(), and fireDue() if the handlers are.
/// Owns:      a reference to each timer until it is removed.
class CXDispatchTimerList {
public:
    CXDispatchTimerList();
    ~CXDispatchTimerList();
    CXDispatchTimerList(const CXDispatchTimerList&) = delete;
    CXDispatchTimerList& operator=(const CXDispatchTimerList&) = delete;

    // add() and reschedule() return true if the first deadline became earlier: a thread that sleeps until
    // firstDeadline() must then read it again.

    /// Adds a timer and schedules it by its deadline and interval. Asserts, with "CXDispatchQueue" and a
    /// line, if the timer is already in the list or memory for its entry cannot be allocated.
    [[nodiscard]] bool add(const CXRef<CXDispatchMember>& timer);
    /// Does nothing if the timer is not in the list.
    void remove(const CXDispatchMember& timer);
    /// Reschedules a timer by its current deadline and interval. Does nothing if the timer is not in the
    /// list.
    [[nodiscard]] bool reschedule(const CXDispatchMember& timer);
    std::vector<CXRef<CXDispatchMember>> timers() const;

    /// Host ticks; Futex::noDeadline when no timer is scheduled.
    uint64_t firstDeadline() const noexcept { return _firstDeadline.load(); }
    /// Calls every timer that is due at `now` once, the earliest first. A handler may change the list. A
    /// timer that becomes due again during the call fires in the next call, so that a handler that always
    /// reschedules its timer does not make this function run forever.
    void fireDue(uint64_t now) noexcept;

private:
    class Entry;

    CXRef<Entry> _nextDue(uint64_t now) const noexcept;
    void _schedule(Entry& entry) noexcept;
    void _unschedule(Entry& entry) noexcept;
    /// Returns true if the first deadline became earlier.
    bool _publishFirstDeadline() noexcept;

    std::map<const CXDispatchMember*, CXRef<Entry>> _entries;
    Entry* _first = nullptr; // by ascending deadline
    Entry* _last = nullptr;
    uint64_t _pass = 0; // counts the calls of fireDue()
    // The deadline of the first entry. Read without the right to run work: it only determines how long a
    // thread sleeps, and the thread that makes it earlier wakes a reader that missed the change.
    std::atomic<uint64_t> _firstDeadline{dxr::Futex::noDeadline};
};
