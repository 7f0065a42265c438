#pragma once

#include "DeviceSelection.h"

#include <atomic>
#include <dxr/DXRPropertyListener.h>

/// One device while a runner has it, in either direction or both: when it disconnects and returns, its overloads, and how it
/// keeps to the clock of the others.
/// Threads: one; overloads are reported on another.
class SessionDevice {
public:
    enum class Change { None, Gone, Back, Blinked }; ///< Blinked: gone, and back already

    explicit SessionDevice(const DeviceSelection& selection);
    ~SessionDevice();
    SessionDevice(SessionDevice&&) = default;
    SessionDevice& operator=(SessionDevice&&) = delete;

    const std::string& uid() const { return _uid; }
    const std::string& name() const { return _name; }    ///< printable
    AudioObjectID deviceID() const { return _deviceID; } ///< 0 while it is not connected
    bool isConnected() const { return _deviceID != kAudioObjectUnknown; }
    double secondsAway() const { return _secondsAway; } ///< in all, up to its last return

    /// Whether it has gone or come back since the last call, `seconds` after the beginning.
    Change update(double seconds);
    /// Notes its status as a part of an aggregate. True when its frames had to jump, or were missing, or it is brought to the
    /// others' clock in another way than before.
    bool noteStatus(const AudioAggregateSubDeviceStatus& status);
    /// Another context has started: its aggregate counts from the beginning.
    void forgetStatus() { _last.reset(); }
    /// Counts from now on.
    void beginCounting();

    uint32_t overloads() const { return _overloads->count - _overloadsBefore; }
    uint64_t resynchronisations() const { return _resynchronisations; }
    uint64_t lostFrames() const { return _lostFrames; }                       ///< silent for want of frames
    bool isClock() const { return isConnected() && _last && _last->isClock; } ///< of the others
    /// By how much its clock is faster than that; nothing where it has the same, or runs alone.
    std::optional<double> partsPerMillion() const;
    /// "clock", or "+12.3 ppm"; how it was brought to the others last. Empty where it ran alone.
    const std::string& clockText() const { return _clockText; }

private:
    struct Overloads final : CXObject {
        std::atomic<uint32_t> count{0}; // raised where the hardware reports them; stands for itself
    };

    void _listen(AudioObjectID deviceID);

    const std::string _uid, _name;
    const CXRef<DXRDevice> _device;
    const CXRef<Overloads> _overloads = CXRef<Overloads>::adopt(new Overloads);
    CXRef<DXRPropertyListener> _listener; // for the overloads of _deviceID
    AudioObjectID _deviceID = kAudioObjectUnknown;
    uint32_t _overloadsBefore = 0;
    double _goneAt = 0.0, _secondsAway = 0.0;
    std::optional<AudioAggregateSubDeviceStatus> _last; // of this stay
    uint64_t _resynchronisations = 0, _lostFrames = 0;
    std::string _clockText;
};
