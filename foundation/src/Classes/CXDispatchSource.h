#pragma once

#include "CXDispatchMember.h"
#include "CXLockFreeReference.h"

#include <atomic>
#include <cstdint>

class CXDispatchQueue;

/// What calls a handler on a queue: the part that CXDispatchReceiver and CXDispatchTimer have in common,
/// which is belonging to a queue and being cancelled.
/// Threads:   any, but setDispatchQueue() one at a time.
/// Real time: the getters.
/// A source on a queue is kept alive by it, and keeps it alive: cancel the source to be rid of it.
class DXR_EXPORT CXDispatchSource : public CXDispatchMember {
public:
    /// Null before it has entered one, and after it was cancelled.
    CXRef<CXDispatchQueue> queue() const;
    /// Leaves the queue it is on and enters `queue`, or none for null. A cancelled source asserts, with
    /// "CXDispatchQueue" and a line.
    void setDispatchQueue(const CXRef<CXDispatchQueue>& queue);
    /// Calls its handler no more once this has run on the queue, before this returns if that is where the
    /// caller is. The handler is dropped.
    void cancel() override;

protected:
    CXDispatchSource();
    ~CXDispatchSource() override;

    /// False where there was no memory for what a source holds.
    bool isWhole() const noexcept { return _queue && _handler; }
    /// Where a subclass keeps its handler, a CXStoredBlock.
    CXLockFreeReference& storedHandler() const noexcept { return *_handler; }

private:
    /// Steps of a subclass: has `queue` know of it, or forget it.
    virtual void _enter(CXDispatchQueue& queue) = 0;
    virtual void _leave(CXDispatchQueue& queue) = 0;
    void _finishCancel(const CXRef<CXDispatchQueue>& queue);
    void _leaveForGood(const CXRef<CXDispatchQueue>& queue);

    // A source that is cancelled while another thread moves it to a new queue: cancel() sets the bit and then
    // reads the queue, setDispatchQueue() sets the queue, enters it and then looks at the bit. One of the two
    // sees the other. Either the mover finds the bit and leaves the new queue itself, or cancel() finds the
    // new queue and the finishing step leaves it; where both do, the second does nothing. The finishing step
    // leaves only the queue it runs on: the mover may be waiting for that queue as work of the new one, and
    // waiting for the new one in turn would be a deadlock. Every access is a read-modify-write, so that the
    // one that comes second also sees what the first did before.
    std::atomic<uint32_t> _cancelled{0}; // bit 0: requested, bit 1: done
    const CXRef<CXLockFreeReference> _queue;
    const CXRef<CXLockFreeReference> _handler;
};
