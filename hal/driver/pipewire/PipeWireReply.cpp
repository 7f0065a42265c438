#include "PipeWireReply.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr std::chrono::milliseconds maxWaitForEffect{400};

} // namespace

void PipeWireReply::accept()
{
    const std::scoped_lock lock(_mutex);
    _accepted = true;
    _changed.notify_all();
}

void PipeWireReply::finish(HALStatus status)
{
    const std::scoped_lock lock(_mutex);
    if (!_status)
        _status = status;
    _changed.notify_all();
}

bool PipeWireReply::isAccepted() const
{
    const std::scoped_lock lock(_mutex);
    return _accepted;
}

bool PipeWireReply::isOver() const
{
    const std::scoped_lock lock(_mutex);
    return _status.has_value();
}

HALStatus PipeWireReply::wait(HALDeadline deadline)
{
    std::unique_lock lock(_mutex);
    _changed.wait_until(lock, deadline, [this] { return _accepted || _status; });
    if (_accepted)
        _changed.wait_until(lock, std::min(deadline, std::chrono::steady_clock::now() + maxWaitForEffect),
                            [this] { return _status.has_value(); });
    if (!_status)
        _status = _accepted ? kAudioHardwareNoError : kAudioHardwareUnspecifiedError;
    return *_status;
}
