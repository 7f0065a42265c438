#pragma once

#include "WorkQueue.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace dxr {

/// Runs work concurrently on a few threads shared by the whole process, with raised priority where that is
/// permitted. Work may wait, but only a limited number of work items run at the same time.
class DXR_EXPORT GlobalQueue final : public WorkQueue {
public:
    static GlobalQueue& highPriority();

    /// Starts the first thread. Throws std::system_error if it cannot be created. After it has returned once,
    /// async() never throws: for callers that must be able to queue work later.
    void prepare();
    /// Throws std::system_error, and never runs `work`, if the first thread cannot be created.
    void async(Work work) override;
    void after(uint64_t delayNanoseconds, Work work) override;
    /// Returns true on each of the queue's threads; sync() throws there.
    bool isCurrent() const noexcept override;

private:
    GlobalQueue() : WorkQueue("global") {}
    ~GlobalQueue() override = default;

    void _addThread();
    void _serve();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Work> _waiting;
    size_t _threads = 0;
    size_t _idle = 0;
};

} // namespace dxr
