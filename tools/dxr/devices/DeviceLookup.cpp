#include "DeviceLookup.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "TextFormat.h"

#include <algorithm>
#include <dxr/DXRDeviceManager.h>
#include <dxr/HALHardwareDriver.h>
#include <dxr/QDL.h>
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
        formatText("%s could be %zu devices; use a UID:", quoted(wanted).c_str(), candidates.size());
    for (size_t i = 0; i < std::min(candidates.size(), shownCandidates); ++i) {
        const DeviceReport& candidate = candidates[i];
        line += formatText("\n  %s  %s", clipToWidth(singleLine(candidate.displayName()), shownText).c_str(),
                           clipToWidth(singleLine(candidate.uid), shownText).c_str());
    }
    if (candidates.size() > shownCandidates)
        line += "\n  …";
    throw ToolFailure(line);
}

/// What is there in this direction and could be meant: the device itself, else all of its model.
std::vector<DeviceReport> readReferred(const DXRDeviceReference& reference)
{
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    const CXRef<DXRDevice> first = manager.deviceWithReference(reference.string());
    if (!first || !first->isConnected())
        return {};
    std::vector<CXRef<DXRDevice>> devices{first};
    if (!reference.isEqual(first->reference().get())) {
        for (const CXRef<DXRDevice>& device : manager.connectedDevices())
            if (device != first && reference.isGenericallyEqual(device->reference().get()))
                devices.push_back(device);
    }
    std::vector<DeviceReport> reports;
    for (const CXRef<DXRDevice>& device : devices)
        if (std::optional<DeviceReport> report = DeviceReport::read(device->deviceID()))
            reports.push_back(*std::move(report));
    return reports;
}

std::optional<DeviceReport> findReferred(const std::string& text, std::optional<HALDirection> direction)
{
    const CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithString(text);
    if (!reference)
        return std::nullopt;
    for (const HALDirection side : {HALDirection::Output, HALDirection::Input}) {
        const bool isInput = side == HALDirection::Input;
        if (direction.value_or(side) != side || reference->isInput().value_or(isInput) != isInput)
            continue;
        const std::vector<DeviceReport> found = readReferred(*reference->deviceReferenceWithInput(isInput));
        if (found.size() > 1)
            failAmbiguous(text, found);
        if (!found.empty())
            return found.front();
    }
    throw DeviceMissing("the device of the reference " + quoted(text) + " is not connected");
}

} // namespace

std::optional<DeviceReport> DeviceLookup::findIfKnown(const std::string& wanted,
                                                      std::optional<HALDirection> direction)
{
    if (isDeviceReference(wanted))
        return findReferred(wanted, direction);
    const std::vector<DeviceReport> all = DeviceReport::readAll(DeviceReport::Hidden::Yes);
    const auto hasDirection = [&](const DeviceReport& device) {
        return !direction || device[*direction].channelCount > 0;
    };
    const auto isNamed = [&](const DeviceReport& device) {
        return !device.isHidden && device.displayName() == wanted;
    };
    const auto hidesAndIsNamed = [&](const DeviceReport& device) {
        return device.isHidden && device.displayName() == wanted;
    };
    const std::string part = foldCase(wanted);
    const auto hasPart = [&](const DeviceReport& device) {
        return !device.isHidden && !part.empty() &&
               (foldCase(device.displayName()).find(part) != std::string::npos ||
                foldCase(device.uid).find(part) != std::string::npos);
    };

    for (const DeviceReport& device : all) {
        if (device.uid != wanted)
            continue;
        if (!hasDirection(device))
            throw ToolFailure(formatText("%s has no %s channels", quoted(device.displayName()).c_str(),
                                         nameOf(*direction)));
        return device;
    }
    for (const std::function<bool(const DeviceReport&)>& matches :
         {std::function<bool(const DeviceReport&)>(isNamed),
          std::function<bool(const DeviceReport&)>(hidesAndIsNamed),
          std::function<bool(const DeviceReport&)>(hasPart)}) {
        std::vector<DeviceReport> found;
        for (const DeviceReport& device : all)
            if (hasDirection(device) && matches(device))
                found.push_back(device);
        if (found.size() > 1)
            failAmbiguous(wanted, found);
        if (found.size() == 1)
            return found.front();
    }
    return std::nullopt;
}

DeviceReport DeviceLookup::find(const std::string& wanted, std::optional<HALDirection> direction)
{
    if (const std::optional<DeviceReport> found = findIfKnown(wanted, direction))
        return *found;
    if (isDeviceReference(wanted))
        throw ToolFailure(quoted(wanted) + " is no device reference");
    if (const std::string reason = HALHardwareUnavailableReason(); !reason.empty())
        throw DeviceMissing(reason);
    throw DeviceMissing(formatText("no %s%sdevice %s; 'dxr list' shows UIDs and names",
                                   direction ? nameOf(*direction) : "", direction ? " " : "",
                                   quoted(wanted).c_str()));
}
