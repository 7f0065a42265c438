#pragma once

#include "CXDispatchMember.h"
#include "CXLockFreeReference.h"

#include <atomic>
#include <cstdint>

class CXDispatchQueue;

/// Base class of CXDispatchReceiver and CXDispatchTimer, which call a handler on a queue: manages the queue,
/// the handler and cancelling.
/// Threads:   any, but only one thread at a time may call setDispatchQueue().
/// Real time: the getters.
/// A source and its queue keep each other alive: cancel the source to release it.
class DXR_EXPORT CXDispatchSource : public CXDispatchMember {
public:
    /// Returns null before the source was added to a queue and after it was cancelled.
    CXRef<CXDispatchQueue> queue() const;
    /// Removes the source from its queue and adds it to `queue` unless that is null. Asserts for a cancelled
    /// source, with "CXDispatchQueue" and a line.
    void setDispatchQueue(const CXRef<CXDispatchQueue>& queue);
    /// Stops calling the handler and releases it. Takes effect as work of the queue: before this returns if
    /// the caller runs on the queue, otherwise asynchronously.
    void cancel() override;

protected:
    CXDispatchSource();
    ~CXDispatchSource() override;

    /// Returns false if memory could not be allocated at creation.
    bool isWhole() const noexcept { return _queue && _handler; }
    /// Holds the subclass's handler, a CXStoredBlock.
    CXLockFreeReference& storedHandler() const noexcept { return *_handler; }

private:
    /// Implemented by subclasses: add the source to `queue`, or remove it.
    virtual void _enter(CXDispatchQueue& queue) = 0;
    virtual void _leave(CXDispatchQueue& queue) = 0;
    void _finishCancel(const CXRef<CXDispatchQueue>& queue);
    void _leaveForGood(const CXRef<CXDispatchQueue>& queue);

    // A source may be cancelled while another thread moves it to a new queue. cancel() sets the bit and then
    // reads the queue; setDispatchQueue() sets the queue, adds the source to it and then reads the bit. At
    // least one of the two sees the other: either the moving thread sees the bit and removes the source from
    // the new queue, or cancel() sees the new queue and _finishCancel() removes the source from it; if both
    // do, the second has no effect. _finishCancel() removes the source only from the queue that it runs on:
    // the moving thread may be waiting for that queue as work of the new one, and waiting for the new queue
    // too would deadlock. Every access is a read-modify-write operation, so that the second thread also sees
    // the earlier writes of the first.
    std::atomic<uint32_t> _cancelled{0}; // bit 0: requested, bit 1: done
    const CXRef<CXLockFreeReference> _queue;
    const CXRef<CXLockFreeReference> _handler;
};
