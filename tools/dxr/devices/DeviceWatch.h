#pragma once

#include "DeviceReport.h"

#include <chrono>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRPropertyListener.h>
#include <dxr/MainQueue.h>
#include <map>

/// Reports devices that connect, disconnect and change.
/// Threads: the main thread. The hardware's threads post changes to the main queue.
class DeviceWatch {
public:
    enum class Kind { Present, Connected, Disconnected, Changed, LostCycles, Default };
    struct Event {
        Kind kind;
        std::chrono::system_clock::time_point when;
        DeviceReport device;   ///< current or, if disconnected, last; Default without a device: empty
        std::string what = {}; ///< Changed: the JSON key, "outputs/volume"; Default: "output"
        CXPlist from = {};     ///< Changed: the value before
        CXPlist to = {};       ///< Changed: the value now
        /// The event as one line, without the time: "changed       USB Mic: output volume 50% -> 62%".
        std::string text() const;
        /// The addresses of the device's objects: "input 0x55…, output 0x55…".
        std::string identity() const;
        CXPlist json() const;
    };

    /// If `withHidden` is false, a device that becomes hidden is reported as disconnected.
    explicit DeviceWatch(bool withHidden);
    ~DeviceWatch();
    DeviceWatch(const DeviceWatch&) = delete;
    DeviceWatch& operator=(const DeviceWatch&) = delete;

    /// Starts watching and returns an event for every device and default device. Call it once, before next().
    std::vector<Event> begin();
    /// A descriptor that polls readable when next() has work.
    static int fd() noexcept { return dxr::MainQueue::shared().fd(); }
    /// Serves the main queue and returns the events since the last call.
    std::vector<Event> next();

private:
    using Moment = std::chrono::system_clock::time_point;
    struct Change {
        AudioObjectID objectID;
        uint32_t selector;
        Moment when;
    };
    /// Changes that next() has not processed yet. Used on the main queue.
    struct Changes final : CXObject {
        std::vector<Change> pending;
        void add(const Change& change)
        {
            dxr::MainQueue::shared().async(
                [self = CXRef<Changes>(this), change] { self->pending.push_back(change); });
        }
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
    std::map<std::string, AudioObjectID> _defaults; // keys: "input", "output", "system output"
};
