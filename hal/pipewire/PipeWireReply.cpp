#include "PipeWireReply.h"

#include <chrono>

namespace {

constexpr std::chrono::milliseconds mostForAnswer{1500};
constexpr std::chrono::milliseconds mostForEffect{400};

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

HALStatus PipeWireReply::wait()
{
    std::unique_lock lock(_mutex);
    _changed.wait_for(lock, mostForAnswer, [this] { return _accepted || _status; });
    if (_accepted)
        _changed.wait_for(lock, mostForEffect, [this] { return _status.has_value(); });
    if (!_status)
        _status = _accepted ? kAudioHardwareNoError : kAudioHardwareUnspecifiedError;
    return *_status;
}
