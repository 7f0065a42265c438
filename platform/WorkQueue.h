#pragma once

#include "CXBlock.h"

#include <cstdint>
#include <string>

namespace dxr {

/// A queue that runs work: a serial queue, the main queue or the global queue.
/// Threads:   every function may be called on any thread.
/// Real time: no; it locks and allocates.
/// Work that throws ends the process, because no caller could catch the exception.
class DXR_EXPORT WorkQueue : public CXObject {
public:
    using Work = CXBlock<void()>;

    /// Queues `work` and returns. On a serial queue it runs after the work that this thread queued before.
    /// Empty work is ignored.
    virtual void async(Work work) = 0;
    /// Returns true if the calling thread is running this queue's work.
    virtual bool isCurrent() const noexcept = 0;

    /// Runs `work` on the queue and waits until it has finished. On the queue's own thread this would
    /// deadlock, so it throws std::system_error (resource_deadlock_would_occur).
    virtual void sync(const Work& work);
    /// Runs `work` as async() does, after at least `delayNanoseconds`. Keeps the queue alive until then.
    /// Throws std::system_error, and never runs it, if no thread can be created.
    virtual void after(uint64_t delayNanoseconds, Work work);

    const std::string& label() const noexcept { return _label; }

protected:
    explicit WorkQueue(std::string label) : _label(std::move(label)) {}

private:
    const std::string _label;
};

} // namespace dxr
