#pragma once

#include "DeviceSelection.h"

#include <atomic>
#include <dxr/DXRPropertyListener.h>

/// A device that a runner uses in one or both directions: its connection, overloads, and clock.
/// Threads: one at a time; overloads are counted on the hardware's notification thread.
class SessionDevice {
public:
    enum class Change { None, Gone, Back, Blinked }; ///< Blinked: disconnected and already connected again

    explicit SessionDevice(const DeviceSelection& selection);
    SessionDevice(SessionDevice&&) = default;

    const std::string& uid() const { return _uid; }
    const std::string& name() const { return _name; }    ///< printable
    AudioObjectID deviceID() const { return _deviceID; } ///< 0 while it is not connected
    bool isConnected() const { return _deviceID != kAudioObjectUnknown; }
    double secondsAway() const { return _secondsAway; } ///< total time disconnected, until the last return

    /// Returns whether the device has disconnected or returned since the last call. `seconds` is the time
    /// since the session's start.
    Change update(double seconds);
    /// Notes the device's status in an aggregate. Returns true if the status is the first, frames were lost
    /// or skipped, or the device or its clock compensation was started or stopped.
    bool noteStatus(const AudioAggregateSubDeviceStatus& status);
    /// Call it for a new context: the counts of its aggregate begin at 0.
    void forgetStatus() { _last.reset(); }
    void beginCounting();

    uint32_t overloads() const { return _overloads->count - _overloadsBefore; }
    uint64_t resynchronisations() const { return _resynchronisations; }
    uint64_t lostFrames() const { return _lostFrames; }                       ///< replaced by silence
    bool isClock() const { return isConnected() && _last && _last->isClock; } ///< of the aggregate
    /// How much faster than the aggregate's clock the device's clock runs; null if it is the same clock or
    /// the device runs alone.
    std::optional<double> partsPerMillion() const;
    /// The clock in the last aggregate, "clock", "+12.3 ppm" or "the same clock"; empty without an aggregate.
    const std::string& clockText() const { return _clockText; }

private:
    struct Overloads final : CXObject {
        std::atomic<uint32_t> count{0}; // incremented on the notification thread; relaxed: orders nothing
    };

    void _listen(AudioObjectID deviceID);

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
