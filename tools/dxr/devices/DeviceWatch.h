#pragma once

#include "DeviceFollower.h"
#include "DeviceReport.h"

#include <map>

/// Turns what the hardware announces into what has happened to the devices.
/// Threads: one.
class DeviceWatch {
public:
    enum class Kind { Present, Connected, Disconnected, Changed, LostCycles, Default };
    struct Event {
        Kind kind;
        std::chrono::system_clock::time_point when;
        DeviceReport device; ///< as it is now, or was last; empty for a default that is none
        std::string what;    ///< of a change: which value, "output volume"; of a default: "output"
        CXPlist from;        ///< of a change: before
        CXPlist to;          ///< of a change: now
        /// One line without its time, e.g. "changed       USB Mic: output volume 50% -> 62%".
        std::string text() const;
        /// Which objects stand for the device's directions: "input 0x55…, output 0x55…".
        std::string identity() const;
        /// Of a change: the value that it has now, e.g. "output volume 62%".
        std::string shortText() const;
        CXPlist json() const;
    };

    /// Hidden devices only when `withHidden`; otherwise one that hides itself counts as gone.
    explicit DeviceWatch(bool withHidden) : _withHidden(withHidden) {}

    /// Every device that is there now, once.
    std::vector<Event> begin();
    /// Polls readable when next() has something to look at.
    int fd() const noexcept { return _follower.fd(); }
    /// What has happened since the last call.
    std::vector<Event> next();

private:
    using Moment = std::chrono::system_clock::time_point;

    void _meetDevices(Moment when, Kind kind, std::vector<Event>& events);
    void _readAgain(AudioObjectID deviceID, Moment when, std::vector<Event>& events);
    void _readDefaults(Moment when, std::vector<Event>& events);
    bool _isShown(const DeviceReport& device) const { return _withHidden || !device.isHidden; }

    const bool _withHidden;
    DeviceFollower _follower;
    std::map<AudioObjectID, DeviceReport> _known;
    std::map<std::string, AudioObjectID> _defaults; // by "input", "output", "system output"
};
