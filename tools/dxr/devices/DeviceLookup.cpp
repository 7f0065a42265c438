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
std::vector<DeviceReport> readReferred(const DXRDeviceReference& reference)
{
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    const CXRef<DXRDevice> first = manager.deviceWithReference(reference.string());
    if (!first || !first->isConnected())
        return {};
    DXRDeviceManager::Devices devices{first};
    if (!reference.isEqual(first->reference().get()))
        for (const CXRef<DXRDevice>& device : manager.connectedDevices())
            if (reference.isGenericallyEqual(device->reference().get()))
                devices.insert(device);
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
        if (std::optional<DeviceReport> found =
                onlyOne(text, readReferred(*reference->deviceReferenceWithInput(isInput))))
            return found;
    }
    throw DeviceMissing("the device of the reference " + quoted(text) + " is not connected");
}

} // namespace

std::optional<DeviceReport> findDeviceIfKnown(const std::string& wanted,
                                              std::optional<HALDirection> direction)
{
    if (isDeviceReference(wanted))
        return findReferred(wanted, direction);
    const std::string part = foldCase(wanted);
    const auto isNamed = [&](const DeviceReport& device) { return device.displayName() == wanted; };
    const auto hasPart = [&](const DeviceReport& device) {
        return !part.empty() && (foldCase(device.displayName()).find(part) != std::string::npos ||
                                 foldCase(device.uid).find(part) != std::string::npos);
    };
    using Matches = std::function<bool(const DeviceReport&)>;
    const Matches inOrder[] = {
        [&](const DeviceReport& device) { return !device.isHidden && isNamed(device); },
        [&](const DeviceReport& device) { return device.isHidden && isNamed(device); },
        [&](const DeviceReport& device) { return !device.isHidden && hasPart(device); },
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
    for (const Matches& matches : inOrder) {
        std::vector<DeviceReport> found;
        std::ranges::copy_if(all, std::back_inserter(found), matches);
        if (std::optional<DeviceReport> device = onlyOne(wanted, found))
            return device;
    }
    return std::nullopt;
}

DeviceReport findDevice(const std::string& wanted, std::optional<HALDirection> direction)
{
    if (const std::optional<DeviceReport> found = findDeviceIfKnown(wanted, direction))
        return *found;
    if (isDeviceReference(wanted))
        throw ToolFailure(quoted(wanted) + " is not a device reference");
    if (const std::string reason = HALHardwareUnavailableReason(); !reason.empty())
        throw DeviceMissing(reason);
    throw DeviceMissing(formatText("no %sdevice %s; 'dxr list' shows UIDs and names",
                                   direction ? (std::string(nameOf(*direction)) + " ").c_str() : "",
                                   quoted(wanted).c_str()));
}
