#pragma once

#include "CXDispatchMember.h"
#include "Futex.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

/// The timers of a dispatch queue by deadline, equal deadlines in the order they were scheduled.
/// Threads:   one at a time, with the right to run the queue's work; firstDeadline() on any.
/// Real time: reschedule(), and fireDue() as the handlers are.
/// Owns:      a reference to each timer, until it is removed.
class CXDispatchTimerList {
public:
    CXDispatchTimerList();
    ~CXDispatchTimerList();
    CXDispatchTimerList(const CXDispatchTimerList&) = delete;
    CXDispatchTimerList& operator=(const CXDispatchTimerList&) = delete;

    // The functions that return a bool return whether the first deadline is earlier than before: a thread
    // that sleeps until firstDeadline() has to look again.

    /// Schedules a timer by its own deadline and interval. One that is in the list, or no memory for its
    /// entry, asserts, with "CXDispatchQueue" and a line.
    [[nodiscard]] bool add(const CXRef<CXDispatchMember>& timer);
    /// Does nothing for a timer that is not in the list.
    void remove(const CXDispatchMember& timer);
    /// Schedules a timer anew by its own deadline and interval. Does nothing for one that is not in the list.
    [[nodiscard]] bool reschedule(const CXDispatchMember& timer);
    std::vector<CXRef<CXDispatchMember>> timers() const;

    /// Host ticks; Futex::noDeadline when no timer is scheduled.
    uint64_t firstDeadline() const noexcept { return _firstDeadline.load(); }
    /// Calls every timer due at `now` once, the earliest first. A handler may change the list; a timer that
    /// it makes due again waits for the next call, so that a handler which always does so does not keep the
    /// caller here.
    void fireDue(uint64_t now) noexcept;

private:
    class Entry;

    CXRef<Entry> _nextDue(uint64_t now) const noexcept;
    void _schedule(Entry& entry) noexcept;
    void _unschedule(Entry& entry) noexcept;
    /// Whether the first deadline is earlier now.
    bool _publishFirstDeadline() noexcept;

    std::map<const CXDispatchMember*, CXRef<Entry>> _entries;
    Entry* _first = nullptr; // by ascending deadline
    Entry* _last = nullptr;
    uint64_t _pass = 0; // counts the calls of fireDue()
    // The first entry's. Read without the guard: it is only when to look, and a reader that misses a change
    // to an earlier one is woken by the thread that made it.
    std::atomic<uint64_t> _firstDeadline{dxr::Futex::noDeadline};
};
