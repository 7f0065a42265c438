#include "DXRAudioAggregateContext.h"

#include "AggregateComposition.h"
#include "CXStringAdditions.h"
#include "CXValue.h"
#include "QDL.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

constexpr int maxWaits = 300;
constexpr std::chrono::milliseconds wait(10);

/// A random UUID (RFC 4122, version 4) as text.
std::string newUUID()
{
    std::random_device random;
    uint32_t words[4];
    for (uint32_t& word : words)
        word = random();
    words[1] = (words[1] & 0xFFFF0FFF) | 0x4000;
    words[2] = (words[2] & 0x3FFFFFFF) | 0x80000000;
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%04X%08X", words[0], words[1] >> 16,
                  words[1] & 0xFFFF, words[2] >> 16, words[2] & 0xFFFF, words[3]);
    return text;
}

} // namespace

CXRef<DXRAudioAggregateContext>
DXRAudioAggregateContext::initWithIO(RunnerIO& io, const CXRef<CXObject>& runner, const DXRDeviceNodes& nodes,
                                     Viables viables, const std::vector<std::string>& deviceUIDs,
                                     HALStatus* status)
{
    auto context = CXRef<DXRAudioAggregateContext>::adopt(
        new DXRAudioAggregateContext(io, runner, nodes, std::move(viables), deviceUIDs));
    context->_deviceUID = _uniqueDeviceUID();
    context->_deviceID =
        context->_createAggregateDevice(deviceUIDs, context->_clockDeviceUID(deviceUIDs), status);
    if (context->_deviceID == kAudioObjectUnknown)
        return nullptr;
    context->_waitForChannels(deviceUIDs);
    return context;
}

DXRAudioAggregateContext::~DXRAudioAggregateContext()
{
    _destroyAggregateDevice();
}

std::string DXRAudioAggregateContext::_uniqueDeviceUID()
{
    char prefix[24];
    std::snprintf(prefix, sizeof prefix, "DXR:%X:", static_cast<unsigned>(getpid()));
    return prefix + newUUID();
}

AudioObjectID DXRAudioAggregateContext::_plugInIDFromBundleID(const std::optional<std::string>& bundleID)
{
    if (!bundleID)
        return kAudioObjectUnknown;
    const CXRef<CXValue> text = CXValue::initWithPlist(*bundleID);
    const CXObject* input = text.get();
    AudioObjectID plugInID = kAudioObjectUnknown;
    AudioValueTranslation translation{&input, sizeof input, &plugInID, sizeof plugInID};
    uint32_t size = sizeof translation;
    constexpr AudioObjectPropertyAddress address{kAudioHardwarePropertyPlugInForBundleID,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};
    const HALStatus status =
        AudioObjectGetPropertyData(kAudioObjectSystemObject, &address, 0, nullptr, &size, &translation);
    return status == kAudioHardwareNoError ? plugInID : kAudioObjectUnknown;
}

/// The first UID that is the device of a viable node; parts of aggregates are skipped.
std::optional<std::string>
DXRAudioAggregateContext::_clockDeviceUID(const std::vector<std::string>& deviceUIDs) const
{
    const auto clock = std::ranges::find_if(deviceUIDs, [this](const std::string& uid) {
        return std::ranges::any_of(
            _viables, [&](const CXRef<DXRDeviceNode>& node) { return node->device()->deviceUID() == uid; });
    });
    return clock == deviceUIDs.end() ? std::nullopt : std::optional(*clock);
}

AudioObjectID
DXRAudioAggregateContext::_createAggregateDevice(const std::vector<std::string>& deviceUIDs,
                                                 const std::optional<std::string>& clockDeviceUID,
                                                 HALStatus* status) const
{
    CXPlist subdevices = CXPlist::array();
    for (const std::string& uid : deviceUIDs) {
        CXPlist subdevice{{aggregateUIDKey, uid}};
        if (clockDeviceUID && uid != *clockDeviceUID)
            subdevice["drift"] = 1;
        subdevices.push_back(std::move(subdevice));
    }
    CXPlist description{{aggregateUIDKey, _deviceUID},
                        {"name", "DXRDeviceAggregate"},
                        {aggregateSubdevicesKey, std::move(subdevices)},
                        {"private", 1},
                        {"stacked", 0}};
    if (clockDeviceUID)
        description["master"] = *clockDeviceUID;
    AudioObjectID deviceID = kAudioObjectUnknown;
    *status =
        AudioHardwareCreateAggregateDevice(CXValue::initWithPlist(std::move(description)).get(), &deviceID);
    return *status == kAudioHardwareNoError ? deviceID : kAudioObjectUnknown;
}

void DXRAudioAggregateContext::_destroyAggregateDevice()
{
    if (_deviceID != kAudioObjectUnknown)
        AudioHardwareDestroyAggregateDevice(_deviceID);
    _deviceID = kAudioObjectUnknown;
}

/// Stops waiting if all devices have disappeared, for example because the sound server has ended: they will
/// have no channels, and the timer context cannot start while this blocks the queue.
void DXRAudioAggregateContext::_waitForChannels(const std::vector<std::string>& deviceUIDs) const
{
    const auto isThere = [](const std::string& uid) {
        return QDLAudioDeviceIDFromUID(uid) != kAudioObjectUnknown;
    };
    const auto hasChannels = [this](bool isInput) {
        return QDLAudioDeviceChannelCount(_deviceID, isInput) > 0;
    };
    for (int waits = 0; waits < maxWaits && !hasChannels(true) && !hasChannels(false) &&
                        std::ranges::any_of(deviceUIDs, isThere);
         ++waits)
        std::this_thread::sleep_for(wait);
}

CXPlist DXRAudioAggregateContext::_composition() const
{
    return aggregateComposition(_deviceID);
}

std::vector<AudioObjectID> DXRAudioAggregateContext::_devicesOfNode(const DXRDeviceNode& node) const
{
    std::vector<AudioObjectID> devices;
    for (const std::string& uid : node.deviceUIDs())
        devices.push_back(QDLAudioDeviceIDFromUID(uid));
    return devices;
}
