#pragma once

#include "DeviceReport.h"

#include <chrono>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRPropertyListener.h>
#include <dxr/MainQueue.h>
#include <map>

/// Reports devices that connect, disconnect and change.
/// Threads: the main thread. The hardware reports on others, which hand changes over through the main queue.
class DeviceWatch {
public:
    enum class Kind { Present, Connected, Disconnected, Changed, LostCycles, Default };
    struct Event {
        Kind kind;
        std::chrono::system_clock::time_point when;
        DeviceReport device;   ///< now, or as it was last; of a default: empty when there is none
        std::string what = {}; ///< of a change: the value, "outputs/volume"; of a default: "output"
        CXPlist from = {};     ///< of a change: before
        CXPlist to = {};       ///< of a change: now
        /// One line without the time, "changed       USB Mic: output volume 50% -> 62%".
        std::string text() const;
        /// The device's objects: "input 0x55…, output 0x55…".
        std::string identity() const;
        /// As in docs/json.md.
        CXPlist json() const;
    };

    /// Without hidden devices, one that hides itself has disconnected.
    explicit DeviceWatch(bool withHidden);
    ~DeviceWatch();
    DeviceWatch(const DeviceWatch&) = delete;
    DeviceWatch& operator=(const DeviceWatch&) = delete;

    /// Every device and default device; call it once, before next().
    std::vector<Event> begin();
    /// Polls readable when next() has work.
    static int fd() noexcept { return dxr::MainQueue::shared().fd(); }
    /// The events since the last call. Serves the main queue.
    std::vector<Event> next();

private:
    using Moment = std::chrono::system_clock::time_point;
    struct Change {
        AudioObjectID objectID;
        uint32_t selector;
        Moment when;
    };
    /// Changes that next() has not read, on the main queue.
    struct Changes final : CXObject {
        std::vector<Change> pending;
        void add(const Change& change);
    };
    struct Known {
        DeviceReport report;
        CXRef<DXRPropertyListener> listener;
    };

    CXRef<DXRPropertyListener> _follow(AudioObjectID objectID) const;
    void _compareDevices(Moment when, Kind kind, std::vector<Event>& events);
    void _readAgain(AudioObjectID deviceID, Moment when, std::vector<Event>& events);
    void _readDefaults(Moment when, std::vector<Event>& events);
    bool _isShown(const DeviceReport& device) const { return _withHidden || !device.isHidden; }

    const bool _withHidden;
    const CXRef<Changes> _changes = CXRef<Changes>::adopt(new Changes);
    const DXRDeviceManager::NotifierBlock _notifier;
    const CXRef<DXRPropertyListener> _defaultsListener;
    std::map<AudioObjectID, Known> _known;
    std::map<std::string, AudioObjectID> _defaults; // by "input", "output", "system output"
};
