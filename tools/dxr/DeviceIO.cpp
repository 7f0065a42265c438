#include "DeviceIO.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "ToolFailure.h"

#include <utility>

namespace {

constexpr size_t nameColumns = 40;
constexpr AudioObjectPropertyAddress overload{
    kAudioDeviceProcessorOverload, kAudioObjectPropertyScopeWildcard, kAudioObjectPropertyElementWildcard};

} // namespace

CXRef<DeviceIO> DeviceIO::initWithDevice(const DeviceReport& device, const AudioDeviceIOBlock& block,
                                         CycleMonitor& monitor)
{
    return CXRef<DeviceIO>::adopt(new DeviceIO(device, block, monitor));
}

DeviceIO::DeviceIO(const DeviceReport& device, const AudioDeviceIOBlock& block, CycleMonitor& monitor)
    : _deviceID(device.deviceID), _name(clipToWidth(singleLine(device.name), nameColumns)), _block(block),
      _monitor(monitor)
{
    const HALStatus status = AudioDeviceCreateIOProcIDWithBlock(&_procID, _deviceID, nullptr, block);
    if (status != kAudioHardwareNoError)
        throw ToolFailure(_name + ": cannot run audio: " + textOf(status));
    AudioObjectAddPropertyListener(_deviceID, &overload, _noteOverload, &_monitor);
}

DeviceIO::~DeviceIO()
{
    stop();
}

void DeviceIO::start()
{
    _lastProgress = std::chrono::steady_clock::now();
    const HALStatus status = AudioDeviceStart(_deviceID, _procID);
    if (status != kAudioHardwareNoError)
        throw ToolFailure(_name + ": does not start: " + textOf(status));
}

void DeviceIO::stop() noexcept
{
    if (!_procID)
        return;
    AudioObjectRemovePropertyListener(_deviceID, &overload, _noteOverload, &_monitor);
    AudioDeviceDestroyIOProcID(_deviceID, std::exchange(_procID, nullptr));
}

void DeviceIO::check()
{
    constexpr std::chrono::seconds patience{5};
    if (!isThere(_deviceID))
        throw ToolFailure(_name + ": the device is gone");
    const auto now = std::chrono::steady_clock::now();
    if (const uint64_t cycles = _monitor.cyclesRun(); cycles != _lastCycles) {
        _lastCycles = cycles;
        _lastProgress = now;
    } else if (now - _lastProgress > patience) {
        throw ToolFailure(_name + ": the device gives no more cycles");
    }
}

HALStatus DeviceIO::_noteOverload(AudioObjectID /*objectID*/, uint32_t /*count*/,
                                  const AudioObjectPropertyAddress* /*addresses*/, void* monitor)
{
    static_cast<CycleMonitor*>(monitor)->noteOverload();
    return kAudioHardwareNoError;
}
