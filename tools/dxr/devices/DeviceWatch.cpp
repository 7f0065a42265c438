#include "DeviceWatch.h"

#include "DeviceProperties.h"
#include "Text.h"

#include <algorithm>
#include <dxr/QDL.h>
#include <set>

namespace {

constexpr size_t nameColumns = 40;
constexpr size_t valueColumns = 60;
constexpr const char* words[] = {"present", "connected",   "disconnected",
                                 "changed", "lost cycles", "default"}; // by DeviceWatch::Kind

std::string valueText(const std::string& key, const CXPlist& value)
{
    if (value.is_boolean())
        return value.get<bool>() ? "on" : "off";
    if (value.is_number())
        return key.ends_with("volume") || key == "channel_volumes" ? formatPercent(value.get<double>())
               : key.starts_with("sample_rate")                    ? formatRate(value.get<double>())
                                                                   : formatText("%g", value.get<double>());
    if (value.is_string())
        return singleLine(value.get<std::string>());
    for (const char* inner : {"name", "channels"})
        if (value.is_object() && value.contains(inner))
            return valueText(inner, value[inner]);
    if (value.is_object() && value.contains("minimum")) {
        const std::string from = valueText(key, value["minimum"]), to = valueText(key, value["maximum"]);
        return from == to ? from : from + "…" + to;
    }
    const std::string list = joined(value, ", ", [&](const CXPlist& item) { return valueText(key, item); });
    return list.empty() ? "none" : list;
}

/// A value that differs between two reports. Keys of one direction begin with "inputs/" or "outputs/".
struct Difference {
    std::string key;
    CXPlist from, to;
};
std::vector<Difference> differences(const CXPlist& before, const CXPlist& after,
                                    const std::string& prefix = "")
{
    std::vector<Difference> found;
    for (const auto& [key, value] : after.items()) {
        const CXPlist& old = before[key];
        if (old == value || key.starts_with("default_") ||
            key == "reference") // reported by other events, or changed only as a consequence of other keys
            continue;
        if (prefix.empty() && (key == "inputs" || key == "outputs"))
            std::ranges::move(differences(old, value, key + "/"), std::back_inserter(found));
        else
            found.push_back({prefix + key, old, value});
    }
    return found;
}

/// Whether a display name changed only because the name did, which is reported by its own event.
bool isOfRename(const Difference& difference, const std::string& name)
{
    const auto isNumbered = [&](const CXPlist& shown) {
        return shown.is_string() && shown.get_ref<const std::string&>().starts_with(name + " ");
    };
    return difference.key.ends_with("/display_name") && !isNumbered(difference.from) &&
           !isNumbered(difference.to);
}

/// Returns "output safety offset frames" for "outputs/safety_offset_frames".
std::string labelOf(std::string key)
{
    if (const size_t slash = key.find("s/"); slash != std::string::npos)
        key.replace(slash, 2, " ");
    std::ranges::replace(key, '_', ' ');
    return key;
}

} // namespace

// ---- Events

std::string DeviceWatch::Event::text() const
{
    const std::string start = fitLeft(words[static_cast<size_t>(kind)], 14), name = device.shortName();
    if (kind == Kind::Default)
        return start + what + ": " + (device.deviceID == kAudioObjectUnknown ? "none" : name);
    if (kind == Kind::Changed && what == "name") // printed under the previous name
        return start + shortText(from.get<std::string>(), nameColumns) + ": is now " + name;
    std::string details;
    if (kind == Kind::Changed) {
        const std::string key = what.substr(what.rfind('/') + 1);
        details = ": " + labelOf(what) + " " + clipToWidth(valueText(key, from), valueColumns) + " -> " +
                  clipToWidth(valueText(key, to), valueColumns);
    } else if (kind == Kind::Present || kind == Kind::Connected) {
        details =
            formatText("  %u in, %u out, %s  ", device[HALDirection::Input].channelCount,
                       device[HALDirection::Output].channelCount, formatRate(device.sampleRate).c_str()) +
            shortText(device.uid, nameColumns);
    }
    return start + name + details;
}

std::string DeviceWatch::Event::identity() const
{
    std::string text;
    for (const HALDirection direction : halDirections)
        if (const CXRef<DXRDevice>& object = device[direction].device)
            text += (text.empty() ? "" : ", ") +
                    formatText("%s %p", nameOf(direction), static_cast<const void*>(object.get()));
    return text;
}

CXPlist DeviceWatch::Event::json() const
{
    std::string word = words[static_cast<size_t>(kind)];
    std::ranges::replace(word, ' ', '_');
    CXPlist line = {{"schema", jsonSchema}, {"time", formatUTC(when)}, {"event", word}};
    if (device.deviceID != kAudioObjectUnknown)
        line.update({{"id", device.deviceID}, {"uid", device.uid}, {"name", device.name}});
    if (kind == Kind::Changed)
        line.update({{"property", what}, {"from", from}, {"to", to}});
    if (kind == Kind::Default)
        line["direction"] = what;
    return line;
}

// ---- Changes of the hardware

DeviceWatch::DeviceWatch(bool withHidden)
    : _withHidden(withHidden),
      _notifier([changes = _changes](const auto& connected, const auto& disconnected, const auto& updated) {
          const Moment now = std::chrono::system_clock::now();
          if (!connected.empty() || !disconnected.empty())
              changes->add({kAudioObjectSystemObject, kAudioHardwarePropertyDevices, now});
          for (const CXRef<DXRDevice>& device : updated)
              if (const AudioObjectID deviceID = device->deviceID())
                  changes->add({deviceID, kAudioObjectPropertyName, now});
      }),
      _defaultsListener(_follow(kAudioObjectSystemObject))
{
    DXRDeviceManager::sharedDeviceManager().addDeviceNotifier(nullptr, _notifier);
}

DeviceWatch::~DeviceWatch()
{
    DXRDeviceManager::sharedDeviceManager().removeDeviceNotifier(_notifier);
}

CXRef<DXRPropertyListener> DeviceWatch::_follow(AudioObjectID objectID) const
{
    constexpr AudioObjectPropertyAddress everyProperty{kAudioObjectPropertySelectorWildcard,
                                                       kAudioObjectPropertyScopeWildcard,
                                                       kAudioObjectPropertyElementWildcard};
    CXRef<DXRPropertyListener> listener = DXRPropertyListener::initWithObjectID(
        objectID, &everyProperty, nullptr, _changes,
        [objectID](const CXRef<CXObject>& changes, const AudioObjectPropertyAddress* changed) {
            // Changes of the device list are reported by the device manager, once it has processed them.
            if (objectID != kAudioObjectSystemObject || changed->selector != kAudioHardwarePropertyDevices)
                static_cast<Changes&>(*changes).add(
                    {objectID, changed->selector, std::chrono::system_clock::now()});
        });
    listener->start();
    return listener;
}

std::vector<DeviceWatch::Event> DeviceWatch::begin()
{
    std::vector<Event> events;
    const Moment now = std::chrono::system_clock::now();
    _compareDevices(now, Kind::Present, events);
    _readDefaults(now, events);
    return events;
}

std::vector<DeviceWatch::Event> DeviceWatch::next()
{
    dxr::MainQueue::shared().drain();
    std::vector<Event> events;
    std::set<AudioObjectID> readNow; // a device with several changes is read only once
    for (const Change& change : std::exchange(_changes->pending, {})) {
        if (change.objectID == kAudioObjectSystemObject) {
            if (change.selector == kAudioHardwarePropertyDevices)
                _compareDevices(change.when, Kind::Connected, events);
            _readDefaults(change.when, events);
        } else if (change.selector == kAudioDeviceProcessorOverload) {
            if (const auto known = _known.find(change.objectID);
                known != _known.end() && _isShown(known->second.report))
                events.push_back({Kind::LostCycles, change.when, known->second.report});
        } else if (readNow.insert(change.objectID).second) {
            _readAgain(change.objectID, change.when, events);
        }
    }
    return events;
}

void DeviceWatch::_compareDevices(Moment when, Kind kind, std::vector<Event>& events)
{
    std::set<AudioObjectID> present;
    for (const DeviceReport& report :
         DeviceReport::readAll(_withHidden ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No))
        present.insert(report.deviceID);
    std::erase_if(_known, [&](const auto& known) {
        const auto& [deviceID, device] = known;
        if (!present.contains(deviceID) && _isShown(device.report))
            events.push_back({Kind::Disconnected, when, device.report});
        return !present.contains(deviceID);
    });
    for (const AudioObjectID deviceID : present) {
        if (_known.contains(deviceID))
            continue;
        CXRef<DXRPropertyListener> listener =
            _follow(deviceID); // before the device is read, so that no change is missed
        std::optional<DeviceReport> report = DeviceReport::read(deviceID);
        if (!report)
            continue;
        if (_isShown(*report))
            events.push_back({kind, when, *report});
        _known.emplace(deviceID, Known{std::move(*report), std::move(listener)});
    }
}

void DeviceWatch::_readAgain(AudioObjectID deviceID, Moment when, std::vector<Event>& events)
{
    const auto known = _known.find(deviceID);
    std::optional<DeviceReport> report = DeviceReport::read(deviceID);
    if (known == _known.end() || !report)
        return; // disconnected: _compareDevices() reports it
    const DeviceReport before = std::exchange(known->second.report, std::move(*report));
    const DeviceReport& now = known->second.report;
    if (_isShown(before) != _isShown(now))
        events.push_back({_isShown(now) ? Kind::Connected : Kind::Disconnected, when, now});
    if (!_isShown(before) || !_isShown(now))
        return;
    for (const Difference& difference : differences(before.json(), now.json()))
        if (!isOfRename(difference, now.name))
            events.push_back({Kind::Changed, when, now, difference.key, difference.from, difference.to});
}

void DeviceWatch::_readDefaults(Moment when, std::vector<Event>& events)
{
    const std::pair<const char*, AudioObjectID> current[] = {
        {"input", QDLAudioDeviceDefaultInputDeviceID()},
        {"output", QDLAudioDeviceDefaultOutputDeviceID()},
        {"system output", QDLAudioDeviceDefaultSystemOutputDeviceID()},
    };
    for (const auto& [which, deviceID] : current) {
        const auto before = _defaults.find(which);
        if (before != _defaults.end() && before->second == deviceID)
            continue;
        const auto known = _known.find(deviceID);
        const bool isKnown = known != _known.end(), isFirst = before == _defaults.end();
        if (deviceID != kAudioObjectUnknown && !isKnown && !QDLAudioDeviceIsHidden(deviceID))
            continue; // the device is not listed yet; the defaults are read again once it is
        _defaults[which] = deviceID;
        if (isKnown || !isFirst)
            events.push_back({Kind::Default, when, isKnown ? known->second.report : DeviceReport(), which});
    }
}
