#pragma once

#include "PipeWireCard.h"
#include "PipeWireMetadata.h"
#include "PipeWireNode.h"
#include "PipeWireSession.h"

#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

/// The nodes of one card, or one node without a card. A group becomes one device or several.
struct PipeWireGroup {
    uint64_t serial = 0; ///< the card's or the node's; never reused
    const PipeWireCard* card = nullptr;
    std::vector<const PipeWireNode*> nodes; ///< the ready ones
};

/// The clock settings of the server.
struct PipeWireClockSettings {
    static constexpr uint32_t longestCycle = 65536; ///< frames; no server runs longer ones
    uint32_t rate = 48000;                          ///< Hz; used unless a client asks for another
    std::vector<uint32_t> allowedRates{};           ///< Hz
    uint32_t frameCount = 1024;                     ///< per cycle; used unless a client asks for another
    uint32_t minFrames = 32;
    uint32_t maxFrames = 2048;
    uint32_t forcedRate = 0;       ///< Hz; 0: not forced
    uint32_t forcedFrameCount = 0; ///< 0: not forced
    bool operator==(const PipeWireClockSettings&) const = default;
};

/// Node names of the default devices; empty if there is none.
struct PipeWireDefaultNames {
    std::string sink;
    std::string source;
    bool operator==(const PipeWireDefaultNames&) const = default;
};

/// Callback interface of the mirror's owner. Called on the loop's thread, once for each batch of changes.
/// Groups that have lost a node or their card are reported first, so that nothing is reported about removed
/// objects and their names are free for new ones.
class PipeWireMirrorClient {
public:
    /// The group, its card or one of its nodes has appeared, changed or disappeared.
    virtual void groupChanged(uint64_t serial) = 0;
    virtual void clockSettingsChanged() = 0;
    virtual void defaultsChanged() = 0;
    /// Called after the calls above for one batch of changes.
    virtual void changesEnded() = 0;
    /// Every object that existed when the connection was made has been reported.
    virtual void enumerated() = 0;
    /// A port of any node, including our own nodes, has appeared.
    virtual void portAppeared(uint32_t nodeID) = 0;

protected:
    ~PipeWireMirrorClient() = default;
};

/// An up-to-date copy of the server's nodes, cards, ports, default devices and settings. The cost of a change
/// does not depend on the number of objects.
/// Threads: the loop's.
class PipeWireMirror {
public:
    PipeWireMirror(PipeWireSession& session, PipeWireMirrorClient& client);
    ~PipeWireMirror();
    PipeWireMirror(const PipeWireMirror&) = delete;
    PipeWireMirror& operator=(const PipeWireMirror&) = delete;

    // -- From the session
    void connected();
    void disconnected();
    void globalAppeared(uint32_t id, const std::string& type, const PipeWireProperties& properties);
    void globalDisappeared(uint32_t id);

    // -- Queries
    PipeWireGroup group(uint64_t serial) const;
    /// Null if the node or card has disappeared.
    PipeWireNode* node(uint64_t serial) const;
    PipeWireCard* card(uint64_t serial) const;
    /// The ports of any node of the server; `nodeID` is the server's id.
    std::vector<PipeWirePort> portsOfNode(uint32_t nodeID) const;
    PipeWireClockSettings clockSettings() const;
    PipeWireDefaultNames defaultNames() const;
    /// Whether every change has been reported to the client.
    bool isTold() const noexcept { return !_tellAsked; }

    /// Asks the server for another default device. Returns false if the server keeps no defaults.
    bool setDefault(bool isSource, const std::string& nodeName);

private:
    struct Members {
        std::set<uint32_t> nodeIDs;
        std::optional<uint32_t> cardID;
    };

    void _nodeAppeared(uint32_t id, PipeWireNode::Kind kind, const PipeWireProperties& properties);
    void _nodeChanged(uint32_t id);
    void _nodeDisappeared(uint32_t id);
    void _cardAppeared(uint32_t id, const PipeWireProperties& properties);
    void _cardDisappeared(uint32_t id);
    void _portAppeared(uint32_t id, const PipeWireProperties& properties);
    void _portDisappeared(uint32_t id);
    void _metadataAppeared(uint32_t id, const std::string& name);
    void _metadataDisappeared(uint32_t id);

    void _regroup(uint32_t nodeID);
    void _leaveGroup(uint32_t nodeID);
    void _groupDirty(uint64_t serial);
    void _groupShrunk(uint64_t serial);
    void _tellSoon();
    void _tell();

    PipeWireSession& _session;
    PipeWireMirrorClient& _client;

    std::unordered_map<uint32_t, std::unique_ptr<PipeWireNode>> _nodes;
    std::unordered_map<uint32_t, std::unique_ptr<PipeWireCard>> _cards;
    std::unordered_map<uint64_t, uint32_t> _idsBySerial;            // of nodes and cards
    std::unordered_map<uint32_t, uint64_t> _groupOfNode;            // by the node's id
    std::unordered_map<uint64_t, Members> _groups;                  // by serial
    std::unordered_map<uint32_t, std::set<uint32_t>> _nodesWanting; // nodes by the id of the card they name
    std::unordered_map<uint32_t, std::optional<uint32_t>> _cardNamedBy;
    std::unordered_map<uint32_t, uint32_t> _nodeOfPort;
    std::unordered_map<uint32_t, std::vector<PipeWirePort>> _portsOfNode;
    // In the order of arrival. The first is used: any client can add another of the same name.
    std::vector<std::unique_ptr<PipeWireMetadata>> _defaults;
    std::vector<std::unique_ptr<PipeWireMetadata>> _settings;

    std::set<uint64_t> _dirtyGroups;
    std::set<uint64_t> _shrunkGroups; // groups that have lost a node or their card
    bool _defaultsDirty = false;
    bool _settingsDirty = false;
    bool _tellAsked = false;
    std::set<uint64_t> _unready; // serials of nodes and cards that are not ready yet
    bool _listedAll = false;
    bool _enumerated = false;
};
