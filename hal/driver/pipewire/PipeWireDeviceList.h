#pragma once

#include "PipeWireDevice.h"
#include "PipeWireMirror.h"
#include "PipeWireTimer.h"

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

/// Who hears of devices. Called on the loop's thread.
class PipeWireDeviceListClient {
public:
    virtual void deviceAppeared(PipeWireDevice& device) = 0;
    virtual void deviceChanged(PipeWireDevice& device) = 0;
    /// Its IO is to be ended now; the device is destroyed afterwards.
    virtual void deviceDisappears(PipeWireDevice& device) = 0;

protected:
    ~PipeWireDeviceListClient() = default;
};

/// Makes devices of the server's nodes: of a card with one sink and one source
/// one device, of every other node one of its own, each with a UID that no
/// other has; and of each sink's monitor one that hides. Of several network
/// nodes of one name the newest has the UID: a sender that was killed leaves
/// its node behind for a minute or more, and what it starts again is to be
/// found as the one before. A card's nodes come one after the other, and a node
/// may come before its ports: what looks unfinished is kept back for a moment,
/// lest clients see devices that are replaced at once.
/// Threads: the loop's.
class PipeWireDeviceList {
public:
    PipeWireDeviceList(PipeWireLoop& loop, const PipeWireMirror& mirror, PipeWireDeviceListClient& client);
    ~PipeWireDeviceList();
    PipeWireDeviceList(const PipeWireDeviceList&) = delete;
    PipeWireDeviceList& operator=(const PipeWireDeviceList&) = delete;

    void groupChanged(uint64_t serial);
    /// Nothing more is kept back that was there at the beginning; until this is
    /// called, nothing appears.
    void enumerated();
    /// Every device disappears; a new enumeration may begin.
    void forgetAll();

    /// The device whose sink, or source, has this node name. Null when there is
    /// none.
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
    std::set<uint64_t> _waiting; // groups kept back until the enumeration is over
    std::map<uint64_t, std::chrono::steady_clock::time_point> _keptBack;
    PipeWireTimer _patience;
    bool _isEnumerated = false;
};
