#pragma once

#include "DeviceSelection.h"

#include <atomic>
#include <cmath>
#include <dxr/DXRPropertyListener.h>

/// A device that a runner uses in one or both directions: its connection, overloads, and clock.
/// Threads: one at a time; overloads are counted on the hardware's notification thread.
class SessionDevice {
public:
    enum class Change { None, Gone, Back, Blinked }; ///< Blinked: disconnected and already connected again

    explicit SessionDevice(const DeviceSelection& selection)
        : _uid(selection.report.uid), _name(selection.shortName()), _device(selection.device)
    {
        _listen(_device->deviceID());
    }
    SessionDevice(SessionDevice&&) = default;

    const std::string& uid() const { return _uid; }
    const std::string& name() const { return _name; }    ///< printable
    AudioObjectID deviceID() const { return _deviceID; } ///< 0 while it is not connected
    bool isConnected() const { return _deviceID != kAudioObjectUnknown; }
    double secondsAway() const { return _secondsAway; } ///< total time disconnected, until the last return

    /// Returns what has happened since the last call. `seconds` is the time since the session's start.
    Change update(double seconds)
    {
        const AudioObjectID now = _device->deviceID();
        if (now == _deviceID)
            return Change::None;
        const bool wasConnected = isConnected();
        _listen(now);
        _last.reset();
        if (now == kAudioObjectUnknown) {
            _goneAt = seconds;
            return Change::Gone;
        }
        if (wasConnected)
            return Change::Blinked;
        _secondsAway += seconds - _goneAt;
        return Change::Back;
    }

    /// Notes the device's status in an aggregate. Returns true if the status is the first, frames were lost
    /// or skipped, or the device or its clock compensation was started or stopped.
    bool noteStatus(const AudioAggregateSubDeviceStatus& status)
    {
        const AudioAggregateSubDeviceStatus before = _last.value_or(AudioAggregateSubDeviceStatus{});
        const bool isDisturbed = !_last || status.resynchronisations != before.resynchronisations ||
                                 status.lostFrames != before.lostFrames ||
                                 status.isRunning != before.isRunning ||
                                 status.isCompensated != before.isCompensated;
        _resynchronisations += status.resynchronisations - before.resynchronisations;
        _lostFrames += status.lostFrames - before.lostFrames;
        _last = status;
        _clockText = status.isClock ? "clock"
                     : status.isCompensated
                         ? formatText("%+.1f ppm", std::round(status.partsPerMillion * 10.0) / 10.0 + 0.0)
                         : "the same clock";
        return isDisturbed;
    }
    /// Call it for a new context: the counts of its aggregate begin at 0.
    void forgetStatus() { _last.reset(); }
    void beginCounting()
    {
        _overloadsBefore = _overloads->count;
        _resynchronisations = _lostFrames = 0;
    }

    uint32_t overloads() const { return _overloads->count - _overloadsBefore; }
    uint64_t resynchronisations() const { return _resynchronisations; }
    uint64_t lostFrames() const { return _lostFrames; }                       ///< replaced by silence
    bool isClock() const { return isConnected() && _last && _last->isClock; } ///< of the aggregate
    /// How much faster than the aggregate's clock its clock runs; null for the same clock or no aggregate.
    std::optional<double> partsPerMillion() const
    {
        return isConnected() && _last && !_last->isClock && _last->isCompensated
                   ? std::optional(_last->partsPerMillion)
                   : std::nullopt;
    }
    /// The clock in the last aggregate, "clock", "+12.3 ppm" or "the same clock"; empty without an aggregate.
    const std::string& clockText() const { return _clockText; }

private:
    struct Overloads final : CXObject {
        std::atomic<uint32_t> count{0}; // incremented on the notification thread; relaxed: orders nothing
    };

    void _listen(AudioObjectID deviceID)
    {
        constexpr AudioObjectPropertyAddress overload{kAudioDeviceProcessorOverload,
                                                      kAudioObjectPropertyScopeWildcard,
                                                      kAudioObjectPropertyElementWildcard};
        _listener = nullptr;
        _deviceID = deviceID;
        if (deviceID == kAudioObjectUnknown)
            return;
        _listener = DXRPropertyListener::initWithObjectID(
            deviceID, &overload, nullptr, _overloads,
            [](const CXRef<CXObject>& target, const AudioObjectPropertyAddress*) {
                static_cast<Overloads&>(*target).count.fetch_add(1, std::memory_order_relaxed);
            });
        _listener->start();
    }

    const std::string _uid, _name;
    const CXRef<DXRDevice> _device;
    const CXRef<Overloads> _overloads = CXRef<Overloads>::adopt(new Overloads);
    CXRef<DXRPropertyListener> _listener; // for the overloads of _deviceID
    AudioObjectID _deviceID = kAudioObjectUnknown;
    uint32_t _overloadsBefore = 0;
    double _goneAt = 0.0, _secondsAway = 0.0;
    std::optional<AudioAggregateSubDeviceStatus> _last; // null after a change of connection or context
    uint64_t _resynchronisations = 0, _lostFrames = 0;
    std::string _clockText;
};
