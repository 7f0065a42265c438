#pragma once

#include "DeviceSelection.h"

#include <atomic>
#include <dxr/DXRPropertyListener.h>

/// What becomes of one device while a runner has it, in either direction or both: when it goes and comes back, the
/// overloads it tells of, and how it keeps to the clock of the others.
/// Threads: one; overloads are told on another.
class DeviceTally {
public:
    enum class Change { None, Gone, Back, Blinked }; ///< Blinked: it went and is back already

    explicit DeviceTally(const DeviceSelection& selection);
    ~DeviceTally();
    DeviceTally(DeviceTally&&) = default;
    DeviceTally& operator=(DeviceTally&&) = delete;

    const std::string& uid() const { return _uid; }
    const std::string& name() const { return _name; } ///< printable
    bool isThere() const { return _deviceID != kAudioObjectUnknown; }
    double secondsAway() const { return _secondsAway; } ///< in all, up to its last return

    /// Looks whether the device is there, `seconds` after the beginning.
    Change look(double seconds);
    /// Takes in how it does as a part of an aggregate. True when its frames had to jump, or were missing, or it is
    /// brought to the others' clock in another way than before.
    bool noteStatus(const AudioAggregateSubDeviceStatus& status);
    /// Counts from now on.
    void beginCounting();

    uint32_t overloads() const { return _overloads->count - _overloadsBefore; }
    uint64_t resynchronisations() const { return _resynchronisations; }
    uint64_t lostFrames() const { return _lostFrames; } ///< silent for want of frames
    /// "clock", or "+12.3 ppm"; how it was brought to the others last. Empty where it ran alone.
    const std::string& clockText() const { return _clockText; }

private:
    struct Overloads final : CXObject {
        std::atomic<uint32_t> count{0}; // raised where the hardware tells; stands for itself
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
