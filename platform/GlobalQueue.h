#pragma once

#include "WorkQueue.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace dxr {

/// Runs work of the whole process side by side, on a few threads of raised priority where that is permitted.
/// Work may wait; only so many pieces run at once.
class DXR_EXPORT GlobalQueue final : public WorkQueue {
public:
    static GlobalQueue& highPriority();

    void async(Work work) override;
    /// Whether the calling thread is one of the queue's; sync() from such a thread throws.
    bool isCurrent() const noexcept override;

private:
    GlobalQueue() : WorkQueue("global") {}
    ~GlobalQueue() override = default;

    void _serve();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Work> _waiting;
    size_t _threads = 0;
    size_t _idle = 0;
};

} // namespace dxr
