#include "SessionDevice.h"

#include "Text.h"

#include <cmath>

SessionDevice::SessionDevice(const DeviceSelection& selection)
    : _uid(selection.report.uid), _name(selection.shortName()), _device(selection.device)
{
    _listen(_device->deviceID());
}

void SessionDevice::_listen(AudioObjectID deviceID)
{
    constexpr AudioObjectPropertyAddress overload{kAudioDeviceProcessorOverload,
                                                  kAudioObjectPropertyScopeWildcard,
                                                  kAudioObjectPropertyElementWildcard};
    _listener = nullptr;
    _deviceID = deviceID;
    if (deviceID == kAudioObjectUnknown)
        return;
    _listener = DXRPropertyListener::initWithObjectID(
        deviceID, &overload, nullptr, _overloads,
        [](const CXRef<CXObject>& target, const AudioObjectPropertyAddress*) {
            static_cast<Overloads&>(*target).count.fetch_add(1, std::memory_order_relaxed);
        });
    _listener->start();
}

SessionDevice::Change SessionDevice::update(double seconds)
{
    const AudioObjectID now = _device->deviceID();
    if (now == _deviceID)
        return Change::None;
    const bool wasConnected = isConnected();
    _listen(now);
    _last.reset();
    if (now == kAudioObjectUnknown) {
        _goneAt = seconds;
        return Change::Gone;
    }
    if (wasConnected)
        return Change::Blinked;
    _secondsAway += seconds - _goneAt;
    return Change::Back;
}

bool SessionDevice::noteStatus(const AudioAggregateSubDeviceStatus& status)
{
    const bool isNew = !_last;
    const AudioAggregateSubDeviceStatus before = isNew ? AudioAggregateSubDeviceStatus{} : *_last;
    const bool isDisturbed = isNew || status.resynchronisations != before.resynchronisations ||
                             status.lostFrames != before.lostFrames || status.isRunning != before.isRunning ||
                             status.isCompensated != before.isCompensated;
    _resynchronisations += status.resynchronisations - before.resynchronisations;
    _lostFrames += status.lostFrames - before.lostFrames;
    _last = status;
    _clockText = status.isClock ? "clock"
                 : status.isCompensated
                     ? formatText("%+.1f ppm", std::round(status.partsPerMillion * 10.0) / 10.0 + 0.0)
                     : "the same clock";
    return isDisturbed;
}

std::optional<double> SessionDevice::partsPerMillion() const
{
    return isConnected() && _last && !_last->isClock && _last->isCompensated
               ? std::optional(_last->partsPerMillion)
               : std::nullopt;
}

void SessionDevice::beginCounting()
{
    _overloadsBefore = _overloads->count;
    _resynchronisations = _lostFrames = 0;
}
