#pragma once

#include "CXBlock.h"

#include <cstdint>
#include <string>

namespace dxr {

/// Somewhere to run work: a serial queue, the main queue or the global one.
/// Threads:   every call from any thread.
/// Real time: no; it locks and allocates.
/// Work that throws ends the process: nobody is there to catch it.
class DXR_EXPORT WorkQueue : public CXObject {
public:
    using Work = CXBlock<void()>;

    /// Runs `work` soon, after what this thread queued before it on a serial queue. Empty work is ignored.
    virtual void async(Work work) = 0;
    /// Whether the calling thread is running this queue's work.
    virtual bool isCurrent() const noexcept = 0;

    /// Runs `work` on the queue and waits for its end. On a serial queue's own thread this could never end
    /// and throws std::system_error (resource_deadlock_would_occur) instead.
    virtual void sync(const Work& work);
    /// Runs `work` as async() does, `delayNanoseconds` from now at the earliest. Keeps the queue alive until
    /// then.
    void after(uint64_t delayNanoseconds, Work work);

    const std::string& label() const noexcept { return _label; }

protected:
    explicit WorkQueue(std::string label) : _label(std::move(label)) {}

private:
    const std::string _label;
};

} // namespace dxr
