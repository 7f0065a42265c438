#include "DeviceTally.h"

#include "TextFormat.h"

#include <cmath>

namespace {

constexpr AudioObjectPropertyAddress overload{
    kAudioDeviceProcessorOverload, kAudioObjectPropertyScopeWildcard, kAudioObjectPropertyElementWildcard};

} // namespace

DeviceTally::DeviceTally(const DeviceSelection& selection)
    : _uid(selection.report.uid), _name(selection.shortName()), _device(selection.device)
{
    _listen(_device->deviceID());
}

DeviceTally::~DeviceTally()
{
    _listen(kAudioObjectUnknown);
}

void DeviceTally::_listen(AudioObjectID deviceID)
{
    if (_listener)
        _listener->stop();
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

DeviceTally::Change DeviceTally::look(double seconds)
{
    const AudioObjectID now = _device->deviceID();
    if (now == _deviceID)
        return Change::None;
    const bool wasThere = isThere();
    _listen(now);
    _last.reset();
    if (now == kAudioObjectUnknown) {
        _goneAt = seconds;
        return Change::Gone;
    }
    if (wasThere)
        return Change::Blinked;
    _secondsAway += seconds - _goneAt;
    return Change::Back;
}

bool DeviceTally::noteStatus(const AudioAggregateSubDeviceStatus& status)
{
    // Numbers that have gone back are those of another stay, which began at nothing.
    const bool isNew = !_last || status.resynchronisations < _last->resynchronisations ||
                       status.lostFrames < _last->lostFrames;
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

void DeviceTally::beginCounting()
{
    _overloadsBefore = _overloads->count;
    _resynchronisations = _lostFrames = 0;
}
