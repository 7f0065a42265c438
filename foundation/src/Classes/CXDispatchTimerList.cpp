#include "CXDispatchTimerList.h"

#include "CXErrorAdditions.h"
#include "CXTFAObject.h"
#include "HostClock.h"

using dxr::Futex;

namespace {

/// Returns a + b, or Futex::noDeadline on overflow.
uint64_t laterBy(uint64_t a, uint64_t b) noexcept
{
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? Futex::noDeadline : sum;
}

} // namespace

/// A timer in the list.
class CXDispatchTimerList::Entry final : public CXTFAObject {
public:
    /// Returns null if memory cannot be allocated.
    static CXRef<Entry> initWithTimer(const CXRef<CXDispatchMember>& timer)
    {
        return CXRef<Entry>::adopt(new Entry(timer));
    }

    /// Reads the timer's deadline and interval, as if it had never been scheduled.
    void reload() noexcept
    {
        deadline = 0;
        absoluteStart = timer->deadline();
        interval = timer->interval();
    }

    /// Called after the timer has fired: computes the next deadline after `now`; none for a one-shot timer.
    void advance(uint64_t now) noexcept
    {
        if (interval == 0) {
            deadline = 0;
            absoluteStart = 0;
            return;
        }
        // The first multiple after `now`: missed periods are skipped.
        deadline = laterBy(now, interval - (now - deadline) % interval);
        if (absoluteStart != 0)
            absoluteStart = deadline;
    }

    const CXRef<CXDispatchMember> timer;
    Entry* previous = nullptr;
    Entry* next = nullptr;
    bool isLinked = false;
    uint64_t deadline = 0;      // host ticks; 0: not scheduled
    uint64_t absoluteStart = 0; // host ticks; 0: none
    uint64_t interval = 0;      // host ticks; 0: one-shot
    uint64_t pass = 0;          // the list's _pass when the timer was last called

private:
    explicit Entry(const CXRef<CXDispatchMember>& entryTimer) : timer(entryTimer) { reload(); }
    ~Entry() override = default;
};

CXDispatchTimerList::CXDispatchTimerList() = default;

CXDispatchTimerList::~CXDispatchTimerList() = default;

bool CXDispatchTimerList::add(const CXRef<CXDispatchMember>& timer)
{
    CXRef<Entry> entry = _entries.contains(timer.get()) ? nullptr : Entry::initWithTimer(timer);
    if (!entry)
        _CXFailedAssertion(nullptr, nullptr, "CXDispatchQueue", __LINE__);
    _schedule(*_entries.emplace(timer.get(), std::move(entry)).first->second);
    return _publishFirstDeadline();
}

void CXDispatchTimerList::remove(const CXDispatchMember& timer)
{
    const auto found = _entries.find(&timer);
    if (found == _entries.end())
        return;
    _unschedule(*found->second);
    const CXRef<Entry> entry = std::move(found->second); // outlives erase(): its destructor may call here
    _entries.erase(found);
    _publishFirstDeadline();
}

bool CXDispatchTimerList::reschedule(const CXDispatchMember& timer)
{
    const auto found = _entries.find(&timer);
    if (found == _entries.end())
        return false;
    _unschedule(*found->second);
    found->second->reload();
    _schedule(*found->second);
    return _publishFirstDeadline();
}

std::vector<CXRef<CXDispatchMember>> CXDispatchTimerList::timers() const
{
    std::vector<CXRef<CXDispatchMember>> all;
    for (const auto& [timer, entry] : _entries)
        all.push_back(entry->timer);
    return all;
}

void CXDispatchTimerList::fireDue(uint64_t now) noexcept
{
    ++_pass;
    while (const CXRef<Entry> entry = _nextDue(now)) { // a reference, because the handler may remove it
        entry->pass = _pass;
        _unschedule(*entry);
        entry->advance(now);
        _schedule(*entry);
        _publishFirstDeadline();
        entry->timer->call({});
    }
}

/// Returns the first timer that is due and was not called in this pass, or null.
CXRef<CXDispatchTimerList::Entry> CXDispatchTimerList::_nextDue(uint64_t now) const noexcept
{
    Entry* entry = _first;
    while (entry != nullptr && entry->pass == _pass)
        entry = entry->next;
    return CXRef<Entry>(entry != nullptr && entry->deadline <= now ? entry : nullptr);
}

/// Inserts the entry by its deadline; failing that by its start, or one interval from now. An entry with none
/// of them is not inserted until reschedule().
void CXDispatchTimerList::_schedule(Entry& entry) noexcept
{
    if (entry.deadline == 0)
        entry.deadline = entry.absoluteStart;
    if (entry.deadline == 0 && entry.interval != 0)
        entry.deadline = laterBy(dxr::HostClock::nowTicks(), entry.interval);
    if (entry.deadline == 0)
        return;
    Entry* before = _last;
    while (before != nullptr && before->deadline > entry.deadline)
        before = before->previous;
    entry.previous = before;
    entry.next = before != nullptr ? before->next : _first;
    (entry.next != nullptr ? entry.next->previous : _last) = &entry;
    (before != nullptr ? before->next : _first) = &entry;
    entry.isLinked = true;
}

void CXDispatchTimerList::_unschedule(Entry& entry) noexcept
{
    if (!entry.isLinked)
        return;
    (entry.previous != nullptr ? entry.previous->next : _first) = entry.next;
    (entry.next != nullptr ? entry.next->previous : _last) = entry.previous;
    entry.previous = nullptr;
    entry.next = nullptr;
    entry.isLinked = false;
}

bool CXDispatchTimerList::_publishFirstDeadline() noexcept
{
    const uint64_t first = _first != nullptr ? _first->deadline : Futex::noDeadline;
    return _firstDeadline.exchange(first) > first;
}
