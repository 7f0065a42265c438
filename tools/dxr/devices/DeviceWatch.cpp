#include "DeviceWatch.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "TextFormat.h"

#include <algorithm>
#include <ctime>
#include <dxr/QDL.h>

namespace {

constexpr size_t nameColumns = 40;
constexpr size_t valueColumns = 60;

const char* wordFor(DeviceWatch::Kind kind)
{
    switch (kind) {
    case DeviceWatch::Kind::Present:
        return "present";
    case DeviceWatch::Kind::Connected:
        return "connected";
    case DeviceWatch::Kind::Disconnected:
        return "disconnected";
    case DeviceWatch::Kind::Changed:
        return "changed";
    case DeviceWatch::Kind::LostCycles:
        return "lost cycles";
    case DeviceWatch::Kind::Default:
        break;
    }
    return "default";
}

/// A value of a report's JSON as a reader wants it.
std::string valueText(const std::string& key, const CXPlist& value)
{
    if (value.is_null())
        return "none";
    if (value.is_boolean())
        return value.get<bool>() ? "on" : "off";
    if (value.is_number())
        return key.ends_with("volume") || key == "channel_volumes" ? formatPercent(value.get<double>())
               : key.starts_with("sample_rate")                    ? formatRate(value.get<double>())
                                                                   : formatText("%g", value.get<double>());
    if (value.is_string())
        return singleLine(value.get<std::string>());
    if (value.is_object() && value.contains("name"))
        return valueText("name", value["name"]);
    if (value.is_object() && value.contains("channels"))
        return valueText("channels", value["channels"]);
    if (value.is_object() && value.contains("minimum")) {
        const std::string from = valueText(key, value["minimum"]);
        const std::string to = valueText(key, value["maximum"]);
        return from == to ? from : from + "…" + to;
    }
    std::string list;
    for (const CXPlist& item : value)
        list += (list.empty() ? "" : ", ") + valueText(key, item);
    return list.empty() ? "none" : list;
}

std::string isoTime(std::chrono::system_clock::time_point when)
{
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    return std::string(text, length) + formatText(".%03dZ", static_cast<int>(milliseconds % 1000));
}

/// What differs between two reports: key, before, now. The two directions' keys begin with "inputs/" or
/// "outputs/".
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
        if (old == value || key.starts_with("default_") || key == "reference") // reported in other ways
            continue;
        if (prefix.empty() && (key == "inputs" || key == "outputs"))
            std::ranges::move(differences(old, value, key + "/"), std::back_inserter(found));
        else
            found.push_back({prefix + key, old, value});
    }
    return found;
}

/// Whether a display name changes because the name does, which is reported already: it gets or loses no number.
bool isOfRename(const Difference& difference, const std::string& name)
{
    const auto isNumbered = [&](const CXPlist& shown) {
        return shown.is_string() && shown.get_ref<const std::string&>().starts_with(name + " ");
    };
    return difference.key.ends_with("/display_name") && !isNumbered(difference.from) &&
           !isNumbered(difference.to);
}

std::string labelOf(std::string key)
{
    for (const auto& [from, to] : {std::pair("inputs/", "input "), std::pair("outputs/", "output ")})
        if (key.starts_with(from))
            key.replace(0, std::string_view(from).size(), to);
    std::ranges::replace(key, '_', ' ');
    return key;
}

} // namespace

std::string DeviceWatch::Event::text() const
{
    const std::string start = fitLeft(wordFor(kind), 14);
    switch (kind) {
    case Kind::Present:
    case Kind::Connected:
        return start + device.shortName() +
               formatText("  %u in, %u out, %s  ", device[HALDirection::Input].channelCount,
                          device[HALDirection::Output].channelCount, formatRate(device.sampleRate).c_str()) +
               clipToWidth(singleLine(device.uid), nameColumns);
    case Kind::Changed: {
        if (what == "name") // reported under the name it had
            return start + clipToWidth(singleLine(from.get<std::string>()), nameColumns) + ": is now " +
                   device.shortName();
        const std::string key = what.substr(what.rfind('/') + 1);
        return start + device.shortName() + ": " + labelOf(what) + " " +
               clipToWidth(valueText(key, from), valueColumns) + " -> " +
               clipToWidth(valueText(key, to), valueColumns);
    }
    case Kind::Default:
        return start + what + ": " + (device.deviceID == kAudioObjectUnknown ? "none" : device.shortName());
    case Kind::Disconnected:
    case Kind::LostCycles:
        break;
    }
    return start + device.shortName();
}

std::string DeviceWatch::Event::identity() const
{
    std::string text;
    for (const HALDirection direction : halDirections) {
        if (const CXRef<DXRDevice>& object = device[direction].device)
            text += (text.empty() ? "" : ", ") +
                    formatText("%s %p", nameOf(direction), static_cast<const void*>(object.get()));
    }
    return text;
}

std::string DeviceWatch::Event::shortText() const
{
    return labelOf(what) + " " + clipToWidth(valueText(what.substr(what.rfind('/') + 1), to), valueColumns);
}

CXPlist DeviceWatch::Event::json() const
{
    std::string word = wordFor(kind);
    std::ranges::replace(word, ' ', '_');
    CXPlist line = {{"schema", jsonSchema}, {"time", isoTime(when)}, {"event", word}};
    if (device.deviceID != kAudioObjectUnknown)
        line.update({{"id", device.deviceID}, {"uid", device.uid}, {"name", device.name}});
    if (kind == Kind::Changed)
        line.update({{"property", what}, {"from", from}, {"to", to}});
    if (kind == Kind::Default)
        line["direction"] = what;
    return line;
}

std::vector<DeviceWatch::Event> DeviceWatch::begin()
{
    std::vector<Event> events;
    const Moment now = std::chrono::system_clock::now();
    _meetDevices(now, Kind::Present, events);
    _readDefaults(now, events);
    return events;
}

std::vector<DeviceWatch::Event> DeviceWatch::next()
{
    std::vector<Event> events;
    std::set<AudioObjectID> readNow; // several changes of one device are read and reported at once
    for (const DeviceFollower::Change& change : _follower.take()) {
        if (change.objectID == kAudioObjectSystemObject) {
            if (change.address.selector == kAudioHardwarePropertyDevices)
                _meetDevices(change.when, Kind::Connected, events);
            _readDefaults(change.when, events);
        } else if (change.address.selector == kAudioDeviceProcessorOverload) {
            if (const auto known = _known.find(change.objectID);
                known != _known.end() && _isShown(known->second))
                events.push_back({Kind::LostCycles, change.when, known->second, {}, {}, {}});
        } else if (readNow.insert(change.objectID).second) {
            _readAgain(change.objectID, change.when, events);
        }
    }
    return events;
}

void DeviceWatch::_meetDevices(Moment when, Kind kind, std::vector<Event>& events)
{
    std::set<AudioObjectID> present;
    for (const DeviceReport& report :
         DeviceReport::readAll(_withHidden ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No))
        present.insert(report.deviceID);
    for (auto known = _known.begin(); known != _known.end();) {
        if (present.contains(known->first)) {
            ++known;
            continue;
        }
        if (_isShown(known->second))
            events.push_back({Kind::Disconnected, when, known->second, {}, {}, {}});
        _follower.forget(known->first);
        known = _known.erase(known);
    }
    for (const AudioObjectID deviceID : present) {
        if (_known.contains(deviceID))
            continue;
        _follower.follow(deviceID); // before it is read, so that no change falls between
        std::optional<DeviceReport> report = DeviceReport::read(deviceID);
        if (!report) {
            _follower.forget(deviceID);
            continue;
        }
        if (_isShown(*report))
            events.push_back({kind, when, *report, {}, {}, {}});
        _known.emplace(deviceID, std::move(*report));
    }
}

void DeviceWatch::_readAgain(AudioObjectID deviceID, Moment when, std::vector<Event>& events)
{
    const auto known = _known.find(deviceID);
    std::optional<DeviceReport> report = DeviceReport::read(deviceID);
    if (known == _known.end() || !report)
        return; // gone: the list of devices reports it
    const DeviceReport before = std::exchange(known->second, std::move(*report));
    const DeviceReport& now = known->second;
    if (_isShown(before) && _isShown(now)) {
        for (Difference& difference : differences(before.json(), now.json())) {
            if (isOfRename(difference, now.name))
                continue;
            events.push_back({Kind::Changed, when, now, std::move(difference.key), std::move(difference.from),
                              std::move(difference.to)});
        }
    } else if (_isShown(before) != _isShown(now)) {
        events.push_back({_isShown(now) ? Kind::Connected : Kind::Disconnected, when, now, {}, {}, {}});
    }
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
        if (deviceID != kAudioObjectUnknown && !_known.contains(deviceID) &&
            !QDLAudioDeviceIsHidden(deviceID))
            continue; // it is not listed yet; when it is, the defaults are looked at again
        const bool isFirst = before == _defaults.end();
        _defaults[which] = deviceID;
        const auto known = _known.find(deviceID);
        if (known != _known.end())
            events.push_back({Kind::Default, when, known->second, which, {}, {}});
        else if (!isFirst)
            events.push_back({Kind::Default, when, DeviceReport(), which, {}, {}});
    }
}
