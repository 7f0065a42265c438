#include "DeviceSelection.h"

#include "DeviceLookup.h"
#include "DeviceProperties.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <charconv>
#include <dxr/HALHardwareDriver.h>

namespace {

constexpr size_t maxChannels = 4096;

/// The number that `text` begins with, which is taken off it; nothing when there is none.
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
    const bool isThere = text.starts_with(character);
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

} // namespace

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

DeviceSelection DeviceSelection::of(const DeviceReport& report, HALDirection direction)
{
    DeviceSelection selection;
    selection.device = report[direction].device;
    if (!selection.device && !report.isHidden) // the manager adopts it a moment after the hardware has it
        throw DeviceMissing(report.shortName() + ": is not ready yet");
    if (!selection.device)
        throw ToolFailure(report.shortName() + ": hides from applications, and runs no audio for them");
    for (uint32_t channel = 1; channel <= report[direction].channelCount; ++channel)
        selection.channels.push_back(channel);
    selection.report = report;
    return selection;
}

DeviceSelection DeviceSelection::find(const std::string& text, HALDirection direction)
{
    const size_t colon = text.rfind(':');
    if (text == "default" || text.starts_with("default:")) {
        for (const DeviceReport& report : DeviceReport::readAll(DeviceReport::Hidden::Yes)) {
            if (!report[direction].isDefault)
                continue;
            DeviceSelection selection =
                text == "default" ? of(report, direction) : find(report.uid + text.substr(colon), direction);
            selection.isDefault = true;
            return selection;
        }
        const std::string reason = HALHardwareUnavailableReason();
        throw DeviceMissing(
            reason.empty() ? formatText("there is no default %s; name a device", nameOf(direction)) : reason);
    }
    std::optional<std::vector<uint32_t>> chosen;
    if (colon != std::string::npos)
        chosen = channelList(std::string_view(text).substr(colon + 1));
    if (!chosen)
        return of(DeviceLookup::find(text, direction), direction);
    if (std::optional<DeviceReport> whole = DeviceLookup::findIfKnown(text, direction))
        return of(*whole, direction);
    DeviceSelection selection = of(DeviceLookup::find(text.substr(0, colon), direction), direction);
    const auto count = static_cast<uint32_t>(selection.channels.size());
    const uint32_t last = *std::ranges::max_element(*chosen);
    if (last > count)
        throw ToolFailure(selection.shortName() + formatText(": has %u %s channel%s, not %u", count,
                                                             nameOf(direction), count == 1 ? "" : "s", last));
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
                              ": is there twice; say all its channels at once, as in 'name:1,2'");
        selections.push_back(std::move(selection));
    }
    return selections;
}
