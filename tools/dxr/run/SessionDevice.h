#pragma once

#include "DeviceSelection.h"

#include <atomic>
#include <dxr/DXRPropertyListener.h>

/// A device that a runner uses, in either direction or both: its connection, overloads, and clock.
/// Threads: one; overloads are reported on another.
class SessionDevice {
public:
    enum class Change { None, Gone, Back, Blinked }; ///< Blinked: disconnected, and connected again

    explicit SessionDevice(const DeviceSelection& selection);
    SessionDevice(SessionDevice&&) = default;

    const std::string& uid() const { return _uid; }
    const std::string& name() const { return _name; }    ///< printable
    AudioObjectID deviceID() const { return _deviceID; } ///< 0 while it is not connected
    bool isConnected() const { return _deviceID != kAudioObjectUnknown; }
    double secondsAway() const { return _secondsAway; } ///< in total, up to its last return

    /// Whether it has disconnected or returned since the last call, `seconds` after the start.
    Change update(double seconds);
    /// Notes its status in an aggregate. True when frames were lost or skipped, or the compensation of its
    /// clock changed.
    bool noteStatus(const AudioAggregateSubDeviceStatus& status);
    /// For a new context, whose aggregate counts from 0.
    void forgetStatus() { _last.reset(); }
    void beginCounting();

    uint32_t overloads() const { return _overloads->count - _overloadsBefore; }
    uint64_t resynchronisations() const { return _resynchronisations; }
    uint64_t lostFrames() const { return _lostFrames; }                       ///< replaced by silence
    bool isClock() const { return isConnected() && _last && _last->isClock; } ///< of the aggregate
    /// How much faster than that its clock runs; null where they are the same, or it runs alone.
    std::optional<double> partsPerMillion() const;
    /// "clock", "+12.3 ppm" or "the same clock", of the last aggregate; empty if there was none.
    const std::string& clockText() const { return _clockText; }

private:
    struct Overloads final : CXObject {
        std::atomic<uint32_t> count{0}; // raised on the hardware's thread; orders nothing
    };

    void _listen(AudioObjectID deviceID);

    const std::string _uid, _name;
    const CXRef<DXRDevice> _device;
    const CXRef<Overloads> _overloads = CXRef<Overloads>::adopt(new Overloads);
    CXRef<DXRPropertyListener> _listener; // for the overloads of _deviceID
    AudioObjectID _deviceID = kAudioObjectUnknown;
    uint32_t _overloadsBefore = 0;
    double _goneAt = 0.0, _secondsAway = 0.0;
    std::optional<AudioAggregateSubDeviceStatus> _last; // since it was connected
    uint64_t _resynchronisations = 0, _lostFrames = 0;
    std::string _clockText;
};
