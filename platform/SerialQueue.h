#pragma once

#include "WorkQueue.h"

namespace dxr {

/// Runs work one item at a time, in the order it was queued, on its own thread. Work that is pending when the
/// last reference is dropped still runs.
class DXR_EXPORT SerialQueue final : public WorkQueue {
public:
    /// The thread's name is the label, cut to at most 15 bytes without splitting a character.
    static CXRef<SerialQueue> initWithLabel(std::string label);

    void async(Work work) override;
    /// Runs `work` on the calling thread if the queue is idle, so that `work` may acquire recursive locks
    /// that the caller holds; the work counts as the queue's.
    void sync(const Work& work) override;
    bool isCurrent() const noexcept override;

private:
    class Line; // shared with the thread, which runs pending work after the queue was destroyed

    explicit SerialQueue(std::string label);
    ~SerialQueue() override;

    const CXRef<Line> _line;
};

} // namespace dxr
