#include "Runner.h"

#include <utility>

namespace dxr_c {

namespace {
thread_local bool isRestricted = false;
} // namespace

bool& isInRestrictedCallback() noexcept
{
    return isRestricted;
}

void Runner::end()
{
    over->isOver = true;
    follow({});
    runner->stop();
}

void Runner::follow(const CXBlock<void()>& block)
{
    const auto notice = CXRef<Notice>::adopt(new Notice);
    CXRef<Notice> before;
    {
        const std::scoped_lock lock(_mutex);
        if (block && over->isOver)
            return;
        before = std::exchange(_notice, notice);
        if (!block && !before)
            return;
        runner->setNotifier(block ? CXRef<dxr::WorkQueue>(&events()) : nullptr,
                            block ? DXRDeviceRunner::Notifier([notice, over = over, block] {
                                if (!notice->isOver && !over->isOver)
                                    block();
                            })
                                  : nullptr);
    }
    if (before) {
        before->isOver = true;
        waitForEvents();
    }
}

/// The block refers to this Runner, which outlives the block's calls.
DXRIOBlock Runner::blockFor(dxr_io io, void* user, bool input)
{
    return [this, io, user, input](uint64_t sampleTime, DXRBuffer& buffer) {
        if (!input)
            buffer.mute();
        if (hasEnded.load(std::memory_order_relaxed) || over->isOver.load(std::memory_order_relaxed))
            return;
        const dxr_cycle cycle = {sizeof cycle,       sampleTime,          buffer.hostTime(),
                                 buffer.samples(),   buffer.frameCount(), buffer.channelCount(),
                                 buffer.sampleRate()};
        const bool wasRestricted = std::exchange(isRestricted, true);
        const int result = io(&cycle, user);
        isRestricted = wasRestricted;
        if (result == 0)
            return;
        hasEnded.store(true, std::memory_order_relaxed);
        runner->stop(); // on the queue, stop() takes effect shortly after
    };
}

} // namespace dxr_c
