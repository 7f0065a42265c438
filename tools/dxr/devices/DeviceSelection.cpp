#include "DeviceSelection.h"

#include "DeviceLookup.h"
#include "DeviceProperties.h"
#include "TextFormat.h"

#include <algorithm>
#include <charconv>
#include <dxr/HALHardwareDriver.h>
#include <numeric>

namespace {

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
    if (text == "default" || text.starts_with("default:")) {
        const DeviceReport report = findDefault(direction);
        DeviceSelection selection =
            text == "default" ? of(report, direction) : find(report.uid + text.substr(colon), direction);
        selection.isDefault = true;
        return selection;
    }
    std::optional<std::vector<uint32_t>> chosen;
    if (colon != std::string::npos)
        chosen = channelList(std::string_view(text).substr(colon + 1));
    if (!chosen)
        return of(findDevice(text, direction), direction);
    if (const std::optional<DeviceReport> whole = findDeviceIfKnown(text, direction))
        return of(*whole, direction);
    DeviceSelection selection = of(findDevice(text.substr(0, colon), direction), direction);
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
