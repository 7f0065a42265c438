#include "PipeWireDeviceList.h"

#include "PipeWireNaming.h"

#include <algorithm>
#include <pipewire/keys.h>
#include <utility>

namespace {

constexpr std::chrono::milliseconds patience{120};

} // namespace

PipeWireDeviceList::PipeWireDeviceList(PipeWireLoop& loop, const PipeWireMirror& mirror,
                                       PipeWireDeviceListClient& client)
    : _mirror(mirror), _client(client), _patience(loop, [this] { _patienceEnded(); })
{}

PipeWireDeviceList::~PipeWireDeviceList() = default;

void PipeWireDeviceList::forgetAll()
{
    _isEnumerated = false;
    _waiting.clear();
    _keptBack.clear();
    _patience.stop();
    for (auto& [serial, devices] : std::exchange(_groups, {}))
        for (const std::unique_ptr<PipeWireDevice>& device : devices)
            _remove(device);
}

void PipeWireDeviceList::enumerated()
{
    _isEnumerated = true;
    // Sorted by name, so that devices with equal UIDs are numbered alike in every order of arrival.
    std::vector<std::pair<std::string, uint64_t>> inOrder;
    for (const uint64_t serial : std::exchange(_waiting, {})) {
        const PipeWireGroup group = _mirror.group(serial);
        const std::string name =
            group.nodes.empty() ? std::string() : group.nodes.front()->properties()[PW_KEY_NODE_NAME];
        inOrder.emplace_back(name, serial);
    }
    std::ranges::sort(inOrder);
    for (const auto& [name, serial] : inOrder)
        _update(serial, Patience::None);
}

void PipeWireDeviceList::groupChanged(uint64_t serial)
{
    if (_isEnumerated)
        _update(serial, Patience::Some);
    else
        _waiting.insert(serial);
}

void PipeWireDeviceList::_patienceEnded()
{
    const auto now = std::chrono::steady_clock::now();
    std::vector<uint64_t> over;
    std::optional<std::chrono::steady_clock::time_point> next;
    for (const auto& [serial, until] : _keptBack) {
        if (until <= now)
            over.push_back(serial);
        else
            next = std::min(next.value_or(until), until);
    }
    for (const uint64_t serial : over)
        _update(serial, Patience::None);
    if (next)
        _patience.start(std::chrono::ceil<std::chrono::milliseconds>(*next - now));
}

void PipeWireDeviceList::_update(uint64_t serial, Patience allowed)
{
    const PipeWireGroup group = _mirror.group(serial);
    const std::vector<PipeWireDevice::Parts> wanted = _partsOf(group);
    Devices& devices = _groups[serial];
    std::erase_if(devices, [&](const std::unique_ptr<PipeWireDevice>& device) {
        const bool isGone = std::ranges::find(wanted, device->parts()) == wanted.end();
        if (isGone)
            _remove(device);
        return isGone;
    });

    bool keepsBack = false;
    for (const PipeWireDevice::Parts& parts : wanted) {
        const auto known = std::ranges::find(devices, parts, [](const auto& each) { return each->parts(); });
        if (known != devices.end())
            _client.deviceChanged(**known);
        else if (allowed == Patience::Some && _looksUnfinished(devices, group, parts))
            keepsBack = true;
        else
            _add(devices, group, parts);
    }
    if (devices.empty())
        _groups.erase(serial);
    if (!keepsBack) {
        _keptBack.erase(serial);
    } else if (_keptBack.try_emplace(serial, std::chrono::steady_clock::now() + patience).second &&
               _keptBack.size() == 1) {
        _patience.start(patience);
    }
}

std::vector<PipeWireDevice::Parts> PipeWireDeviceList::_partsOf(const PipeWireGroup& group) const
{
    std::vector<const PipeWireNode*> sinks;
    std::vector<const PipeWireNode*> sources;
    std::vector<PipeWireDevice::Parts> all;
    const uint64_t card = group.card ? group.card->serial() : 0;
    for (const PipeWireNode* node : group.nodes) {
        switch (node->kind()) {
        case PipeWireNode::Kind::Sink:
            sinks.push_back(node);
            break;
        case PipeWireNode::Kind::Source:
            sources.push_back(node);
            break;
        case PipeWireNode::Kind::Duplex:
            all.push_back({node->serial(), node->serial(), card, false, false});
            break;
        }
    }
    if (group.card && all.empty() && sinks.size() == 1 && sources.size() == 1)
        all.push_back({sinks.front()->serial(), sources.front()->serial(), card, true, false});
    const bool isWholeCard = !all.empty() && all.front().isWholeCard;
    if (!isWholeCard) {
        for (const PipeWireNode* sink : sinks)
            all.push_back({sink->serial(), 0, card, false, false});
        for (const PipeWireNode* source : sources)
            all.push_back({0, source->serial(), card, false, false});
    }
    for (const PipeWireNode* sink : sinks) // after the sinks' devices, whose UIDs theirs are derived from
        if (!sink->monitorPorts().empty())
            all.push_back({0, sink->serial(), card, isWholeCard, true});
    return all;
}

/// The device of the sink that the monitor of `parts` belongs to; null while that device is held back.
const PipeWireDevice* PipeWireDeviceList::_monitored(const Devices& devices,
                                                     const PipeWireDevice::Parts& parts)
{
    const auto sink =
        std::ranges::find(devices, parts.source, [](const auto& each) { return each->parts().sink; });
    return sink == devices.end() ? nullptr : sink->get();
}

bool PipeWireDeviceList::_looksUnfinished(const Devices& devices, const PipeWireGroup& group,
                                          const PipeWireDevice::Parts& parts) const
{
    if (group.card && !parts.isWholeCard)
        return true; // the card's other node may appear soon
    if (parts.isMonitor) {
        const PipeWireNode* sink = _nodeOf(parts);
        return !_monitored(devices, parts) || sink->monitorPorts().size() < sink->playbackPorts().size();
    }
    const PipeWireNode* sink = parts.sink == 0 ? nullptr : _mirror.node(parts.sink);
    const PipeWireNode* source = parts.source == 0 ? nullptr : _mirror.node(parts.source);
    return (sink && sink->playbackPorts().empty()) || (source && source->capturePorts().empty());
}

const PipeWireNode* PipeWireDeviceList::_nodeOf(const PipeWireDevice::Parts& parts) const
{
    return _mirror.node(parts.sink != 0 ? parts.sink : parts.source);
}

std::string PipeWireDeviceList::_newUID(const Devices& devices, const PipeWireGroup& group,
                                        const PipeWireDevice::Parts& parts) const
{
    if (parts.isMonitor)
        return _monitored(devices, parts)->uid() + ".monitor";
    const PipeWireNodeProperties properties(_nodeOf(parts)->properties(),
                                            group.card ? &group.card->properties() : nullptr);
    return pipeWireUID(properties, parts.isWholeCard);
}

std::string PipeWireDeviceList::_uniqueUID(const std::string& uid) const
{
    std::string unique = uid;
    for (int number = 2; _byUID.contains(unique); ++number)
        unique = uid + "#" + std::to_string(number);
    return unique;
}

/// The group whose device must give up `uid` to the newer device of `parts`; nullopt if there is none.
std::optional<uint64_t> PipeWireDeviceList::_groupToDisplace(const std::string& uid,
                                                             const PipeWireDevice::Parts& parts) const
{
    const auto holder = _byUID.find(uid);
    if (parts.isMonitor || holder == _byUID.end() || !_isNewer(parts, *holder->second))
        return std::nullopt;
    for (const auto& [serial, devices] : _groups)
        for (const std::unique_ptr<PipeWireDevice>& device : devices)
            if (device.get() == holder->second)
                return serial;
    return std::nullopt;
}

/// Whether both are network devices and the server created the node of `parts` after that of `other`.
bool PipeWireDeviceList::_isNewer(const PipeWireDevice::Parts& parts, const PipeWireDevice& other) const
{
    const PipeWireNode* newer = _nodeOf(parts);
    const PipeWireNode* older = _nodeOf(other.parts());
    const auto isNetwork = [](const PipeWireNode* node) {
        return node && !node->cardID() && pipeWireIsNetwork({node->properties(), nullptr});
    };
    return isNetwork(newer) && isNetwork(older) &&
           newer->properties().number("object.serial") > older->properties().number("object.serial");
}

std::string PipeWireDeviceList::_nodeName(uint64_t serial) const
{
    const PipeWireNode* node = serial == 0 ? nullptr : _mirror.node(serial);
    return node ? node->properties()[PW_KEY_NODE_NAME] : std::string();
}

void PipeWireDeviceList::_add(Devices& devices, const PipeWireGroup& group,
                              const PipeWireDevice::Parts& parts)
{
    const std::string uid = _newUID(devices, group, parts);
    const std::optional<uint64_t> displaced = _groupToDisplace(uid, parts);
    if (displaced)
        for (const std::unique_ptr<PipeWireDevice>& older : std::exchange(_groups.at(*displaced), {}))
            _remove(older);

    // A monitor gets no node name: without a source, the session manager names the sink as the default
    // source, and that must not make the monitor a default device.
    const std::string sourceName = parts.isMonitor ? std::string() : _nodeName(parts.source);
    PipeWireDevice& device = *devices.emplace_back(
        std::make_unique<PipeWireDevice>(_mirror, parts, _uniqueUID(uid), sourceName, _nodeName(parts.sink)));
    for (const HALDirection direction : halDirections)
        if (const std::string& name = device.nodeName(direction); !name.empty())
            _byNode[static_cast<size_t>(direction)].emplace(name, &device);
    _byUID[device.uid()] = &device;
    _client.deviceAppeared(device);
    if (displaced)
        _update(*displaced, Patience::None); // adds its devices again, under other UIDs
}

void PipeWireDeviceList::_remove(const std::unique_ptr<PipeWireDevice>& device)
{
    _client.deviceDisappears(*device);
    _byUID.erase(device->uid());
    for (const HALDirection direction : halDirections) {
        auto& byName = _byNode[static_cast<size_t>(direction)];
        auto [each, last] = byName.equal_range(device->nodeName(direction));
        each = std::find_if(each, last, [&](const auto& entry) { return entry.second == device.get(); });
        if (each != last)
            byName.erase(each);
    }
}

PipeWireDevice* PipeWireDeviceList::deviceWithNode(const std::string& nodeName, HALDirection direction) const
{
    const auto& byName = _byNode[static_cast<size_t>(direction)];
    const auto found = byName.find(nodeName);
    return found == byName.end() ? nullptr : found->second;
}

std::vector<PipeWireDevice*> PipeWireDeviceList::all() const
{
    std::vector<PipeWireDevice*> devices;
    for (const auto& [uid, device] : _byUID)
        devices.push_back(device);
    return devices;
}
