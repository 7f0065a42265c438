#pragma once

#include "PipeWireCard.h"
#include "PipeWireMetadata.h"
#include "PipeWireNode.h"
#include "PipeWireSession.h"

#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

/// What may be one device, or several: the nodes of one card, or one node that has none.
struct PipeWireGroup {
    uint64_t serial = 0; ///< the card's or the node's; never used again
    const PipeWireCard* card = nullptr;
    std::vector<const PipeWireNode*> nodes; ///< those of which everything is known
};

/// The clock settings of the server.
struct PipeWireClockSettings {
    uint32_t rate = 48000;                ///< Hz, when nobody asks for another
    std::vector<uint32_t> allowedRates{}; ///< Hz
    uint32_t frameCount = 1024;           ///< of a cycle, when nobody asks for another
    uint32_t minFrames = 32;
    uint32_t maxFrames = 2048;
    uint32_t forcedRate = 0;       ///< Hz; 0 when none is
    uint32_t forcedFrameCount = 0; ///< 0 when none is
    bool operator==(const PipeWireClockSettings&) const = default;
};

/// Which devices are the default ones, by node name; empty when none is.
struct PipeWireDefaultNames {
    std::string sink;
    std::string source;
    bool operator==(const PipeWireDefaultNames&) const = default;
};

/// Receives the changes. Called on the loop's thread, once for everything that came together: groups that
/// have lost something come first, so that nothing is said of what has gone, and its names are free for what
/// has come.
class PipeWireMirrorClient {
public:
    /// The group, its card or its nodes have changed, appeared or gone.
    virtual void groupChanged(uint64_t serial) = 0;
    virtual void clockSettingsChanged() = 0;
    virtual void defaultsChanged() = 0;
    /// After the calls above for one lot of changes.
    virtual void changesEnded() = 0;
    /// Everything that was there when the connection was made has been reported.
    virtual void enumerated() = 0;
    /// A port of some node, ours among them, has appeared.
    virtual void portAppeared(uint32_t nodeID) = 0;

protected:
    ~PipeWireMirrorClient() = default;
};

/// The devices of the server: nodes, cards, ports, defaults and settings, kept up to
/// date. One change costs the same however many objects there are.
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

    // -- What is known
    PipeWireGroup group(uint64_t serial) const;
    /// Null when the node or card is gone.
    PipeWireNode* node(uint64_t serial) const;
    PipeWireCard* card(uint64_t serial) const;
    /// The ports of any node of the server, by its id there.
    std::vector<PipeWirePort> portsOfNode(uint32_t nodeID) const;
    PipeWireClockSettings clockSettings() const;
    PipeWireDefaultNames defaultNames() const;
    /// Whether everything that is known has been reported to the client.
    bool isTold() const noexcept { return !_tellAsked; }

    /// Asks for another default device. False when the server keeps no defaults.
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
    std::unique_ptr<PipeWireMetadata> _defaults;
    std::unique_ptr<PipeWireMetadata> _settings;
    uint32_t _defaultsID = 0;
    uint32_t _settingsID = 0;

    std::set<uint64_t> _dirtyGroups;
    std::set<uint64_t> _shrunkGroups; // those of them that have lost a node or their card
    bool _defaultsDirty = false;
    bool _settingsDirty = false;
    bool _tellAsked = false;
    std::set<uint64_t> _unready; // nodes and cards of which not everything is known yet
    bool _listedAll = false;
    bool _enumerated = false;
};
