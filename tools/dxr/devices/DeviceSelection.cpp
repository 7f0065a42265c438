#include "DeviceSelection.h"

#include "DeviceProperties.h"

#include <algorithm>
#include <charconv>
#include <dxr/DXRDeviceManager.h>
#include <dxr/HALHardwareDriver.h>
#include <numeric>

namespace {

constexpr size_t nameColumns = 60;

std::string quoted(const std::string& text)
{
    return "'" + shortText(text, nameColumns) + "'";
}

/// Returns the only device in `found`, or null if it is empty. Throws ToolFailure if there are several.
std::optional<DeviceReport> onlyOne(const std::string& wanted, const std::vector<DeviceReport>& found)
{
    constexpr size_t maxCandidates = 10;
    if (found.empty())
        return std::nullopt;
    if (found.size() == 1)
        return found.front();
    std::string line =
        formatText("%s could be %zu devices; use a UID:", quoted(wanted).c_str(), found.size());
    for (const DeviceReport& candidate : std::span(found).first(std::min(found.size(), maxCandidates)))
        line += "\n  " + shortText(candidate.displayName(), nameColumns) + "  " +
                shortText(candidate.uid, nameColumns);
    throw ToolFailure(line + (found.size() > maxCandidates ? "\n  …" : ""));
}

/// The connected devices that a reference can refer to: the device itself, else all devices of its model.
std::vector<DeviceReport> readReferred(const DXRDeviceReference& reference, HALDirection side)
{
    const auto sided = reference.deviceReferenceWithInput(side == HALDirection::Input);
    std::vector<DeviceReport> reports;
    for (const auto& device : DXRDeviceManager::sharedDeviceManager().devicesWithReference(sided->string()))
        if (std::optional<DeviceReport> report = DeviceReport::read(device->deviceID()))
            reports.push_back(*std::move(report));
    return reports;
}

DeviceReport findReferred(const std::string& text, std::optional<HALDirection> direction)
{
    const CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithString(text);
    if (!reference)
        throw ToolFailure(quoted(text) + " is not a device reference");
    const std::optional<HALDirection> own = sideReferredTo(text);
    if (own && direction.value_or(*own) != *own)
        throw ToolFailure("the reference " + quoted(text) + " is to the device's " + nameOf(*own));
    for (const HALDirection side : {HALDirection::Output, HALDirection::Input})
        if (own.value_or(direction.value_or(side)) == side)
            if (const auto found = onlyOne(text, readReferred(*reference, side)))
                return *found;
    throw DeviceMissing("the device of the reference " + quoted(text) + " is not connected");
}

constexpr size_t maxChannels = 4096;

/// Removes the number at the start of `text` and returns it; null if there is none.
std::optional<uint32_t> takeNumber(std::string_view& text)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

bool takeCharacter(std::string_view& text, char character)
{
    const bool isNext = text.starts_with(character);
    text.remove_prefix(isNext ? 1 : 0);
    return isNext;
}

/// Parses a list of channels such as "1,2" or "3-6,1"; null if `text` is not such a list.
std::optional<std::vector<uint32_t>> channelList(std::string_view text)
{
    std::vector<uint32_t> channels;
    do {
        const std::optional<uint32_t> first = takeNumber(text);
        const std::optional<uint32_t> last = takeCharacter(text, '-') ? takeNumber(text) : first;
        if (!first || !last || *first == 0 || *last < *first ||
            *last - *first >= maxChannels - channels.size())
            return std::nullopt;
        for (uint32_t channel = *first; channel <= *last; ++channel)
            channels.push_back(channel);
    } while (takeCharacter(text, ','));
    return text.empty() ? std::optional(std::move(channels)) : std::nullopt;
}

DeviceReport findDefault(HALDirection direction)
{
    for (const DeviceReport& report : DeviceReport::readAll(DeviceReport::Hidden::Yes))
        if (report[direction].isDefault)
            return report;
    const std::string reason = HALHardwareUnavailableReason();
    throw DeviceMissing(reason.empty() ? formatText("no default %s; name a device", nameOf(direction))
                                       : reason);
}

} // namespace

std::optional<HALDirection> sideReferredTo(const std::string& text)
{
    const CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithString(text);
    if (!reference || !reference->isInput())
        return std::nullopt;
    return *reference->isInput() ? HALDirection::Input : HALDirection::Output;
}

std::optional<DeviceReport> findDeviceIfKnown(const std::string& wanted,
                                              std::optional<HALDirection> direction)
{
    if (isDeviceReference(wanted))
        return findReferred(wanted, direction);
    const std::string part = foldCase(wanted);
    const auto hasPart = [&](const std::string& text) {
        return !part.empty() && foldCase(text).find(part) != std::string::npos;
    };
    const auto rankOf = [&](const DeviceReport& device) { // the lower rank is preferred; 3: does not match
        if (device.displayName() == wanted)
            return device.isHidden ? 1 : 0;
        return !device.isHidden && (hasPart(device.displayName()) || hasPart(device.uid)) ? 2 : 3;
    };
    std::vector<DeviceReport> all = DeviceReport::readAll(DeviceReport::Hidden::Yes);
    const auto hasDirection = [&](const DeviceReport& device) {
        return !direction || device[*direction].channelCount > 0;
    };
    if (const auto device = std::ranges::find(all, wanted, &DeviceReport::uid); device != all.end()) {
        if (!hasDirection(*device))
            throw ToolFailure(quoted(device->displayName()) + " has no " + nameOf(*direction) + " channels");
        return *device;
    }
    std::erase_if(all, [&](const DeviceReport& device) { return !hasDirection(device); });
    for (const int rank : {0, 1, 2}) {
        std::vector<DeviceReport> found;
        std::ranges::copy_if(all, std::back_inserter(found),
                             [&](const DeviceReport& device) { return rankOf(device) == rank; });
        if (std::optional<DeviceReport> device = onlyOne(wanted, found))
            return device;
    }
    return std::nullopt;
}

DeviceReport findDevice(const std::string& wanted, std::optional<HALDirection> direction)
{
    if (wanted == "default")
        return findDefault(direction.value_or(HALDirection::Output));
    if (const std::optional<DeviceReport> found = findDeviceIfKnown(wanted, direction))
        return *found;
    if (const std::string reason = HALHardwareUnavailableReason(); !reason.empty())
        throw DeviceMissing(reason);
    throw DeviceMissing("no " + (direction ? nameOf(*direction) + std::string(" ") : "") + "device " +
                        quoted(wanted) + "; 'dxr list' shows UIDs and names");
}

DeviceSelection DeviceSelection::of(const DeviceReport& report, HALDirection direction)
{
    const CXRef<DXRDevice>& device = report[direction].device;
    if (!device && !report.isHidden) // the manager creates it shortly after the hardware reports the device
        throw DeviceMissing(report.shortName() + ": is not ready yet");
    if (!device)
        throw ToolFailure(report.shortName() + ": is hidden from applications, which cannot use it");
    std::vector<uint32_t> channels(report[direction].channelCount);
    std::iota(channels.begin(), channels.end(), 1U);
    return {report, device, channels};
}

DeviceSelection DeviceSelection::find(const std::string& text, HALDirection direction)
{
    const size_t colon = text.rfind(':');
    std::optional<std::vector<uint32_t>> chosen;
    if (colon != std::string::npos)
        chosen = channelList(std::string_view(text).substr(colon + 1));
    if (const auto whole = chosen ? findDeviceIfKnown(text, direction) : std::nullopt)
        return of(*whole, direction);
    const std::string name = chosen ? text.substr(0, colon) : text;
    DeviceSelection selection = of(findDevice(name, direction), direction);
    selection.isDefault = name == "default";
    if (!chosen)
        return selection;
    const uint32_t last = *std::ranges::max_element(*chosen);
    if (last > selection.channels.size())
        throw ToolFailure(selection.shortName() +
                          formatText(": has %zu %s channel%s, not %u", selection.channels.size(),
                                     nameOf(direction), selection.channels.size() == 1 ? "" : "s", last));
    selection.channels = std::move(*chosen);
    selection.areChannelsChosen = true;
    return selection;
}

std::vector<DeviceSelection> DeviceSelection::findAll(const std::vector<std::string>& texts,
                                                      HALDirection direction)
{
    std::vector<DeviceSelection> selections;
    for (const std::string& text : texts) {
        DeviceSelection selection = find(text, direction);
        if (std::ranges::find(selections, selection.device, &DeviceSelection::device) != selections.end())
            throw ToolFailure(selection.shortName() +
                              ": is named twice; list its channels together, as in 'name:1,2'");
        selections.push_back(std::move(selection));
    }
    return selections;
}

std::string namesOf(const std::vector<DeviceSelection>& selections)
{
    return joined(selections, " + ", &DeviceSelection::shortName);
}
