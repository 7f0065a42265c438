#include "DeviceLookup.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <functional>

namespace {

constexpr size_t shownText = 60; // columns of a name in a message
constexpr size_t shownCandidates = 10;

std::string quoted(const std::string& text)
{
    return "'" + clipToWidth(singleLine(text), shownText) + "'";
}

[[noreturn]] void failAmbiguous(const std::string& wanted, const std::vector<DeviceReport>& candidates)
{
    std::string line =
        formatText("%s could be %zu devices; use an ID or UID:", quoted(wanted).c_str(), candidates.size());
    for (size_t i = 0; i < std::min(candidates.size(), shownCandidates); ++i) {
        const DeviceReport& candidate = candidates[i];
        line += formatText("\n  %u  %s  %s", candidate.deviceID,
                           clipToWidth(singleLine(candidate.name), shownText).c_str(),
                           clipToWidth(singleLine(candidate.uid), shownText).c_str());
    }
    if (candidates.size() > shownCandidates)
        line += "\n  …";
    throw ToolFailure(line);
}

} // namespace

DeviceReport DeviceLookup::find(const std::string& wanted, std::optional<HALDirection> direction)
{
    const std::vector<DeviceReport> all = DeviceReport::readAll();
    const auto hasDirection = [&](const DeviceReport& device) {
        return !direction || device[*direction].channelCount > 0;
    };
    const auto isNamed = [&](const DeviceReport& device) { return device.name == wanted; };
    const std::string part = foldCase(wanted);
    const auto hasPart = [&](const DeviceReport& device) {
        return !part.empty() && (foldCase(device.name).find(part) != std::string::npos ||
                                 foldCase(device.uid).find(part) != std::string::npos);
    };

    for (const DeviceReport& device : all) {
        if (std::to_string(device.deviceID) != wanted && device.uid != wanted)
            continue;
        if (!hasDirection(device))
            throw ToolFailure(
                formatText("%s has no %s channels", quoted(device.name).c_str(), nameOf(*direction)));
        return device;
    }
    for (const std::function<bool(const DeviceReport&)>& matches :
         {std::function<bool(const DeviceReport&)>(isNamed),
          std::function<bool(const DeviceReport&)>(hasPart)}) {
        std::vector<DeviceReport> found;
        for (const DeviceReport& device : all)
            if (!device.isHidden && hasDirection(device) && matches(device))
                found.push_back(device);
        if (found.size() > 1)
            failAmbiguous(wanted, found);
        if (found.size() == 1)
            return found.front();
    }
    throw ToolFailure(formatText("no %s%sdevice %s; 'dxr list' shows what is there",
                                 direction ? nameOf(*direction) : "", direction ? " " : "",
                                 quoted(wanted).c_str()));
}
