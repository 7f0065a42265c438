#include "PipeWireMirror.h"

#include <algorithm>
#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <utility>

namespace {

uint64_t newSerial()
{
    static uint64_t last = 0; // used on the loop's thread only
    return ++last;
}

} // namespace

PipeWireMirror::PipeWireMirror(PipeWireSession& session, PipeWireMirrorClient& client)
    : _session(session), _client(client)
{}

PipeWireMirror::~PipeWireMirror() = default;

void PipeWireMirror::connected()
{
    _listedAll = _enumerated = false;
    // The server lists its existing objects before it replies to this request.
    _session.sync(this, [this] {
        _listedAll = true;
        _tellSoon();
    });
}

void PipeWireMirror::disconnected()
{
    _defaults.clear();
    _settings.clear();
    std::vector<uint32_t> ids;
    for (const auto& [id, node] : _nodes)
        ids.push_back(id);
    for (const uint32_t id : ids)
        _nodeDisappeared(id);
    ids.clear();
    for (const auto& [id, card] : _cards)
        ids.push_back(id);
    for (const uint32_t id : ids)
        _cardDisappeared(id);
    _nodeOfPort.clear();
    _portsOfNode.clear();
    _unready.clear();
    _defaultsDirty = _settingsDirty = true;
    _tellAsked = false;
    _listedAll = false;
    _tell();
}

// ---- From the session

void PipeWireMirror::globalAppeared(uint32_t id, const std::string& type,
                                    const PipeWireProperties& properties)
{
    globalDisappeared(id); // ids are reused, and the old object's removal may not have been reported
    if (type == PW_TYPE_INTERFACE_Node) {
        const std::optional<PipeWireNode::Kind> kind =
            PipeWireNode::kindOfMediaClass(properties[PW_KEY_MEDIA_CLASS]);
        if (kind)
            _nodeAppeared(id, *kind, properties);
    } else if (type == PW_TYPE_INTERFACE_Port) {
        _portAppeared(id, properties);
    } else if (type == PW_TYPE_INTERFACE_Device) {
        if (properties[PW_KEY_MEDIA_CLASS] == "Audio/Device")
            _cardAppeared(id, properties);
    } else if (type == PW_TYPE_INTERFACE_Metadata) {
        _metadataAppeared(id, properties[PW_KEY_METADATA_NAME]);
    }
}

void PipeWireMirror::globalDisappeared(uint32_t id)
{
    if (_nodeOfPort.contains(id)) {
        _portDisappeared(id);
    } else if (_nodes.contains(id)) {
        _nodeDisappeared(id);
    } else if (_cards.contains(id)) {
        _cardDisappeared(id);
    } else {
        _metadataDisappeared(id);
    }
}

void PipeWireMirror::_nodeAppeared(uint32_t id, PipeWireNode::Kind kind, const PipeWireProperties& properties)
{
    const uint64_t serial = newSerial();
    _unready.insert(serial);
    _idsBySerial[serial] = id;
    _nodes[id] = std::make_unique<PipeWireNode>(_session, id, serial, kind, properties,
                                                [this, id] { _nodeChanged(id); });
    _regroup(id);
}

void PipeWireMirror::_nodeChanged(uint32_t id)
{
    const PipeWireNode& node = *_nodes.at(id);
    if (node.isReady())
        _unready.erase(node.serial());
    _regroup(id);
    _groupDirty(_groupOfNode.at(id));
}

void PipeWireMirror::_nodeDisappeared(uint32_t id)
{
    const uint64_t serial = _nodes.at(id)->serial();
    _leaveGroup(id);
    if (const auto named = _cardNamedBy.extract(id); named && named.mapped())
        _nodesWanting[*named.mapped()].erase(id);
    _idsBySerial.erase(serial);
    _nodes.erase(id);
    if (_unready.erase(serial) > 0)
        _tellSoon();
}

void PipeWireMirror::_cardAppeared(uint32_t id, const PipeWireProperties& properties)
{
    const uint64_t serial = newSerial();
    _unready.insert(serial);
    _idsBySerial[serial] = id;
    _cards[id] = std::make_unique<PipeWireCard>(_session, id, serial, properties, [this, id, serial] {
        _unready.erase(serial);
        _groups[serial].cardID = id;
        _groupDirty(serial);
    });
    _groups[serial].cardID = id;
    for (const uint32_t nodeID : std::set<uint32_t>(_nodesWanting[id]))
        _regroup(nodeID);
}

void PipeWireMirror::_cardDisappeared(uint32_t id)
{
    const uint64_t serial = _cards.at(id)->serial();
    _cards.erase(id);
    _idsBySerial.erase(serial);
    _unready.erase(serial);
    for (const uint32_t nodeID : std::set<uint32_t>(_nodesWanting[id]))
        _regroup(nodeID);
    _groups.erase(serial);
    _groupShrunk(serial);
}

void PipeWireMirror::_portAppeared(uint32_t id, const PipeWireProperties& properties)
{
    const std::optional<uint32_t> nodeID = properties.number(PW_KEY_NODE_ID);
    if (!nodeID)
        return;
    const PipeWirePort port(id, properties);
    _nodeOfPort[id] = *nodeID;
    _portsOfNode[*nodeID].push_back(port);
    if (const auto node = _nodes.find(*nodeID); node != _nodes.end())
        node->second->portAppeared(port);
    _client.portAppeared(*nodeID);
}

void PipeWireMirror::_portDisappeared(uint32_t id)
{
    const uint32_t nodeID = _nodeOfPort.at(id);
    _nodeOfPort.erase(id);
    std::vector<PipeWirePort>& ports = _portsOfNode[nodeID];
    std::erase_if(ports, [id](const PipeWirePort& port) { return port.id == id; });
    if (ports.empty())
        _portsOfNode.erase(nodeID);
    if (const auto node = _nodes.find(nodeID); node != _nodes.end())
        node->second->portDisappeared(id);
}

void PipeWireMirror::_metadataAppeared(uint32_t id, const std::string& name)
{
    if (name != "default" && name != "settings")
        return;
    const bool isDefaults = name == "default";
    bool& isDirty = isDefaults ? _defaultsDirty : _settingsDirty;
    auto& all = isDefaults ? _defaults : _settings;
    all.push_back(std::make_unique<PipeWireMetadata>(_session, id, [this, &isDirty] {
        isDirty = true;
        _tellSoon();
    }));
}

void PipeWireMirror::_metadataDisappeared(uint32_t id)
{
    const auto forget = [id](std::vector<std::unique_ptr<PipeWireMetadata>>& all) {
        return std::erase_if(all, [id](const auto& each) { return each->id() == id; }) > 0;
    };
    const bool wasDefaults = forget(_defaults);
    const bool wasSettings = forget(_settings);
    _defaultsDirty = _defaultsDirty || wasDefaults;
    _settingsDirty = _settingsDirty || wasSettings;
    if (wasDefaults || wasSettings)
        _tellSoon();
}

// ---- Groups

/// Moves a node to the group of the card that it names; without such a card, to a group of one node.
void PipeWireMirror::_regroup(uint32_t nodeID)
{
    const PipeWireNode& node = *_nodes.at(nodeID);
    const std::optional<uint32_t> cardID = node.cardID();
    std::optional<uint32_t>& named = _cardNamedBy[nodeID];
    if (named != cardID) {
        if (named)
            _nodesWanting[*named].erase(nodeID);
        if (cardID)
            _nodesWanting[*cardID].insert(nodeID);
        named = cardID;
    }
    const auto card = cardID ? _cards.find(*cardID) : _cards.end();
    const uint64_t serial = card == _cards.end() ? node.serial() : card->second->serial();
    const auto before = _groupOfNode.find(nodeID);
    if (before != _groupOfNode.end() && before->second == serial)
        return;
    _leaveGroup(nodeID);
    _groupOfNode[nodeID] = serial;
    _groups[serial].nodeIDs.insert(nodeID);
    _groupDirty(serial);
}

void PipeWireMirror::_leaveGroup(uint32_t nodeID)
{
    const auto left = _groupOfNode.extract(nodeID);
    if (!left)
        return;
    const uint64_t serial = left.mapped();
    Members& members = _groups[serial];
    members.nodeIDs.erase(nodeID);
    if (members.nodeIDs.empty() && !members.cardID)
        _groups.erase(serial);
    _groupShrunk(serial);
}

void PipeWireMirror::_groupDirty(uint64_t serial)
{
    _dirtyGroups.insert(serial);
    _tellSoon();
}

void PipeWireMirror::_groupShrunk(uint64_t serial)
{
    _shrunkGroups.insert(serial);
    _tellSoon();
}

/// Reports the changes after the server has replied to a request, so that related changes are reported
/// together: a node and its ports, or the removal of a node's ports and then of the node.
void PipeWireMirror::_tellSoon()
{
    if (_tellAsked || !_session.isConnected())
        return;
    _tellAsked = true;
    _session.sync(this, [this] {
        _tellAsked = false;
        _tell();
    });
}

void PipeWireMirror::_tell()
{
    const std::set<uint64_t> shrunk = std::exchange(_shrunkGroups, {});
    const std::set<uint64_t> groups = std::exchange(_dirtyGroups, {});
    for (const uint64_t serial : shrunk)
        _client.groupChanged(serial);
    if (std::exchange(_settingsDirty, false))
        _client.clockSettingsChanged();
    for (const uint64_t serial : groups)
        if (!shrunk.contains(serial))
            _client.groupChanged(serial);
    if (std::exchange(_defaultsDirty, false) || !groups.empty() || !shrunk.empty())
        _client.defaultsChanged();
    _client.changesEnded();
    if (_listedAll && !_enumerated && _unready.empty()) {
        _enumerated = true;
        _client.enumerated();
    }
}

// ---- Queries

PipeWireGroup PipeWireMirror::group(uint64_t serial) const
{
    PipeWireGroup group;
    group.serial = serial;
    const auto found = _groups.find(serial);
    if (found == _groups.end())
        return group;
    group.card = card(serial);
    if (group.card && !group.card->isReady())
        return group;
    for (const uint32_t nodeID : found->second.nodeIDs)
        if (const PipeWireNode& node = *_nodes.at(nodeID); node.isReady())
            group.nodes.push_back(&node);
    return group;
}

PipeWireNode* PipeWireMirror::node(uint64_t serial) const
{
    const auto id = _idsBySerial.find(serial);
    const auto found = id == _idsBySerial.end() ? _nodes.end() : _nodes.find(id->second);
    return found != _nodes.end() && found->second->serial() == serial ? found->second.get() : nullptr;
}

PipeWireCard* PipeWireMirror::card(uint64_t serial) const
{
    const auto id = _idsBySerial.find(serial);
    const auto found = id == _idsBySerial.end() ? _cards.end() : _cards.find(id->second);
    return found != _cards.end() && found->second->serial() == serial ? found->second.get() : nullptr;
}

std::vector<PipeWirePort> PipeWireMirror::portsOfNode(uint32_t nodeID) const
{
    const auto found = _portsOfNode.find(nodeID);
    return found == _portsOfNode.end() ? std::vector<PipeWirePort>() : found->second;
}

PipeWireClockSettings PipeWireMirror::clockSettings() const
{
    PipeWireClockSettings settings;
    if (_settings.empty())
        return settings;
    const PipeWireMetadata& given = *_settings.front();
    // 0 is the server's default value, or forces nothing. No server runs longer cycles than the limit.
    const auto take = [&given](const char* key, uint32_t& value, uint32_t limit) {
        if (const std::vector<uint32_t> numbers = given.numbers(key); !numbers.empty() && numbers[0] > 0)
            value = std::min(numbers.front(), limit);
    };
    take("clock.rate", settings.rate, UINT32_MAX);
    take("clock.quantum", settings.frameCount, PipeWireClockSettings::longestCycle);
    take("clock.min-quantum", settings.minFrames, PipeWireClockSettings::longestCycle);
    take("clock.max-quantum", settings.maxFrames, PipeWireClockSettings::longestCycle);
    take("clock.force-rate", settings.forcedRate, UINT32_MAX);
    take("clock.force-quantum", settings.forcedFrameCount, PipeWireClockSettings::longestCycle);
    settings.maxFrames = std::max(settings.maxFrames, settings.minFrames);
    settings.allowedRates = given.numbers("clock.allowed-rates");
    return settings;
}

PipeWireDefaultNames PipeWireMirror::defaultNames() const
{
    if (_defaults.empty())
        return {};
    // Without a session manager, only the configured defaults are set, never the actual ones.
    const auto named = [this](const std::string& direction) {
        const PipeWireMetadata& defaults = *_defaults.front();
        const std::string name = defaults.name("default.audio." + direction);
        return name.empty() ? defaults.name("default.configured.audio." + direction) : name;
    };
    return {named("sink"), named("source")};
}

bool PipeWireMirror::setDefault(bool isSource, const std::string& nodeName)
{
    if (_defaults.empty())
        return false;
    _defaults.front()->setName(isSource ? "default.configured.audio.source" : "default.configured.audio.sink",
                               nodeName);
    return true;
}
