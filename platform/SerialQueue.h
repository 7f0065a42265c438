#pragma once

#include "WorkQueue.h"

namespace dxr {

/// Runs work one piece at a time, in the order it came, on a thread of its own.
/// Work that is queued when the last reference goes is still run.
class DXR_EXPORT SerialQueue final : public WorkQueue {
public:
    /// The thread takes the label as its name, cut to 15 bytes at a whole character.
    static CXRef<SerialQueue> initWithLabel(std::string label);

    void async(Work work) override;
    /// Runs `work` on the calling thread when the queue is idle, so that a lock which that thread holds is no
    /// obstacle; it counts as the queue's all the same.
    void sync(const Work& work) override;
    bool isCurrent() const noexcept override;

private:
    class Line; // shared with the thread, which outlives the queue while work is left

    explicit SerialQueue(std::string label);
    ~SerialQueue() override;

    const CXRef<Line> _line;
};

} // namespace dxr
