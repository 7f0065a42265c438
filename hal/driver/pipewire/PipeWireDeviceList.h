#pragma once

#include "PipeWireDevice.h"
#include "PipeWireMirror.h"
#include "PipeWireTimer.h"

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

/// Callback interface of the list's owner. Called on the loop's thread.
class PipeWireDeviceListClient {
public:
    virtual void deviceAppeared(PipeWireDevice& device) = 0;
    virtual void deviceChanged(PipeWireDevice& device) = 0;
    /// End the device's IO now: the device is destroyed afterwards.
    virtual void deviceDisappears(PipeWireDevice& device) = 0;

protected:
    ~PipeWireDeviceListClient() = default;
};

/// Builds devices from the server's nodes: one device from a card with one sink and one source, one from
/// every other node, and a hidden one from the monitor of each sink. Every UID is unique. Of several network
/// nodes with the same name, the newest gets the UID, because the node of a sender that was killed remains
/// for a minute or more and the restarted sender must be found as the same device. A card's nodes appear one
/// after the other, and a node may appear before its ports: a device that looks incomplete is held back
/// briefly, so that clients do not see devices that are replaced at once.
/// Threads: the loop's.
class PipeWireDeviceList {
public:
    PipeWireDeviceList(PipeWireLoop& loop, const PipeWireMirror& mirror, PipeWireDeviceListClient& client);
    ~PipeWireDeviceList();
    PipeWireDeviceList(const PipeWireDeviceList&) = delete;
    PipeWireDeviceList& operator=(const PipeWireDeviceList&) = delete;

    void groupChanged(uint64_t serial);
    /// The initial enumeration is complete: adds the devices found so far. Until then, none appears.
    void enumerated();
    /// Removes every device; a new enumeration may begin.
    void forgetAll();

    /// The device whose sink or source has this node name; null if there is none.
    PipeWireDevice* deviceWithNode(const std::string& nodeName, HALDirection direction) const;
    std::vector<PipeWireDevice*> all() const;

private:
    using Devices = std::vector<std::unique_ptr<PipeWireDevice>>;
    enum class Patience { Some, None };

    void _update(uint64_t serial, Patience patience);
    std::vector<PipeWireDevice::Parts> _partsOf(const PipeWireGroup& group) const;
    static const PipeWireDevice* _monitored(const Devices& devices, const PipeWireDevice::Parts& parts);
    bool _looksUnfinished(const Devices& devices, const PipeWireGroup& group,
                          const PipeWireDevice::Parts& parts) const;
    const PipeWireNode* _nodeOf(const PipeWireDevice::Parts& parts) const;
    void _add(Devices& devices, const PipeWireGroup& group, const PipeWireDevice::Parts& parts);
    void _remove(const std::unique_ptr<PipeWireDevice>& device);
    std::string _uniqueUID(const std::string& uid) const;
    std::string _newUID(const Devices& devices, const PipeWireGroup& group,
                        const PipeWireDevice::Parts& parts) const;
    std::optional<uint64_t> _groupToDisplace(const std::string& uid,
                                             const PipeWireDevice::Parts& parts) const;
    bool _isNewer(const PipeWireDevice::Parts& parts, const PipeWireDevice& other) const;
    std::string _nodeName(uint64_t serial) const;
    void _patienceEnded();

    const PipeWireMirror& _mirror;
    PipeWireDeviceListClient& _client;
    std::map<uint64_t, Devices> _groups; // by the group's serial
    std::unordered_map<std::string, PipeWireDevice*> _byUID;
    std::array<std::unordered_multimap<std::string, PipeWireDevice*>, 2>
        _byNode;                 // by direction and node name
    std::set<uint64_t> _waiting; // groups held back until enumerated()
    std::map<uint64_t, std::chrono::steady_clock::time_point> _keptBack;
    PipeWireTimer _patience;
    bool _isEnumerated = false;
};
