#include "PipeWireHardware.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

// A node goes on for a moment after its last client has left it.
constexpr std::chrono::milliseconds afterglow{150};

bool areClose(const std::vector<float>& a, const std::vector<float>& b)
{
    return std::ranges::equal(a, b, [](float x, float y) { return std::abs(x - y) <= 1e-5F; });
}

} // namespace

PipeWireHardware::PipeWireHardware(PipeWireLoop& loop, PipeWireModel& model,
                                   const std::optional<std::string>& remote)
    : _model(model), _session(loop, *this, remote), _mirror(_session, *this), _devices(loop, _mirror, *this),
      _ioEnded(loop, [this] {
          for (PipeWireDevice* device : _devices.all())
              if (std::exchange(device->isEndingIO, false))
                  _publish(*device);
      })
{}

PipeWireHardware::~PipeWireHardware()
{
    _session.disconnect(); // while everything that hears of it is still there
}

// ---- The session

void PipeWireHardware::sessionConnected()
{
    _mirror.connected();
}

void PipeWireHardware::sessionDisconnected()
{
    _devices.forgetAll();
    _mirror.disconnected();
    for (const Pending& pending : std::exchange(_pending, {}))
        pending.reply->finish(kAudioHardwareUnspecifiedError);
}

void PipeWireHardware::sessionFoundNoServer()
{
    _model.enumerated();
}

void PipeWireHardware::globalAppeared(uint32_t id, const char* type, const PipeWireProperties& properties)
{
    _mirror.globalAppeared(id, type, properties);
}

void PipeWireHardware::globalDisappeared(uint32_t id)
{
    _mirror.globalDisappeared(id);
}

// ---- The mirror

void PipeWireHardware::groupChanged(uint64_t serial)
{
    _devices.groupChanged(serial);
}

void PipeWireHardware::clockSettingsChanged()
{
    const PipeWireClockSettings settings = _mirror.clockSettings();
    if (settings == _settings)
        return;
    _settings = settings;
    for (PipeWireDevice* device : _devices.all())
        _publish(*device);
}

void PipeWireHardware::defaultsChanged()
{
    const PipeWireDefaultNames names = _mirror.defaultNames();
    const auto idOf = [this](const std::string& name, HALDirection direction) {
        const PipeWireDevice* device = _devices.deviceWithNode(name, direction);
        return device ? device->objectID : kAudioObjectUnknown;
    };
    const AudioObjectID output = idOf(names.sink, HALDirection::Output);
    _model.defaultChanged(HALDefault::Input, idOf(names.source, HALDirection::Input));
    _model.defaultChanged(HALDefault::Output, output);
    _model.defaultChanged(HALDefault::SystemOutput, output);
}

void PipeWireHardware::changesEnded()
{
    _finishShown();
}

void PipeWireHardware::enumerated()
{
    _devices.enumerated();
    defaultsChanged();
    _model.enumerated();
}

void PipeWireHardware::portAppeared(uint32_t nodeID)
{
    for (const auto& [deviceID, table] : _running)
        if (PipeWireDevice* device = _devices.deviceWithID(deviceID);
            device && device->io && device->io->nodeID() == nodeID)
            _linkIO(*device);
}

// ---- The devices

void PipeWireHardware::deviceAppeared(PipeWireDevice& device)
{
    device.objectID = _model.deviceAppeared(device.describe(_settings));
    // One that was kept back may have been the default all along.
    defaultsChanged();
}

void PipeWireHardware::deviceChanged(PipeWireDevice& device)
{
    _publish(device);
    const auto running = _running.find(device.objectID);
    if (running != _running.end() && device.io && device.io->ends() != device.ends()) {
        device.io.reset();
        _makeIO(device, running->second);
    }
}

void PipeWireHardware::deviceDisappears(PipeWireDevice& device)
{
    device.io.reset();
    _running.erase(device.objectID);
    _model.deviceDisappeared(device.objectID);
}

void PipeWireHardware::_publish(PipeWireDevice& device)
{
    if (device.isPresent()) // else its end is about to be reported, and nothing before that
        _model.deviceChanged(device.objectID, device.describe(_settings));
}

// ---- Writes

/// Answers `reply` when the server has taken everything sent so far and `shows` is true.
void PipeWireHardware::_finishWhen(const Reply& reply, std::function<bool()> shows)
{
    if (!_session.isConnected())
        return reply->finish(kAudioHardwareUnspecifiedError);
    _pending.push_back({reply, std::move(shows)});
    _session.sync(this, [this, reply] {
        reply->accept();
        _finishShown();
    });
}

void PipeWireHardware::_finishShown()
{
    if (!_mirror.isTold())
        return; // whoever reads after a write has answered finds the new value: the model comes first
    std::erase_if(_pending, [](const Pending& pending) {
        if (!pending.reply->isOver() && pending.reply->isAccepted() && pending.shows())
            pending.reply->finish(kAudioHardwareNoError);
        return pending.reply->isOver();
    });
}

void PipeWireHardware::setNominalSampleRate(AudioObjectID deviceID, double rate, const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    device->wantedRate = rate;
    _applyWishes(*device, reply, [this, deviceID, rate] {
        const PipeWireDevice* now = _devices.deviceWithID(deviceID);
        return !now || !now->io || now->io->clock().rate == rate;
    });
}

void PipeWireHardware::setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount, const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    device->wantedFrameCount = frameCount;
    _applyWishes(*device, reply, [this, deviceID, frameCount] {
        const PipeWireDevice* now = _devices.deviceWithID(deviceID);
        return !now || !now->io || now->io->clock().frameCount == frameCount;
    });
}

void PipeWireHardware::_applyWishes(PipeWireDevice& device, const Reply& reply, std::function<bool()> shows)
{
    if (!device.io) { // they count from the next start on
        _publish(device);
        return reply->finish(kAudioHardwareNoError);
    }
    device.io->setWishes(_wishes(device));
    _finishWhen(reply, std::move(shows));
}

void PipeWireHardware::setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                                 float scalar, const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    PipeWireVolumeProps change;
    change.amplitudes = device->volume(direction).amplitudesAfter(element, scalar);
    _setVolumeProps(*device, direction, change, reply);
}

void PipeWireHardware::setMuted(AudioObjectID deviceID, HALDirection direction, bool muted,
                                const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    PipeWireVolumeProps change;
    change.isMuted = muted;
    _setVolumeProps(*device, direction, change, reply);
}

void PipeWireHardware::_setVolumeProps(PipeWireDevice& device, HALDirection direction,
                                       const PipeWireVolumeProps& change, const Reply& reply)
{
    const std::optional<PipeWireDevice::VolumePlace> place = device.volumePlace(direction);
    if (!place)
        return reply->finish(kAudioHardwareUnknownPropertyError);
    if (place->route)
        device.card()->setRoute(*place->route, place->cardDevice, change);
    else
        device.node(direction)->setVolumeProps(change);
    _finishWhen(reply, [this, deviceID = device.objectID, direction, change] {
        const PipeWireDevice* now = _devices.deviceWithID(deviceID);
        const std::optional<PipeWireDevice::VolumePlace> there =
            now ? now->volumePlace(direction) : std::nullopt;
        return !there ||
               ((!change.isMuted || there->props.isMuted == change.isMuted) &&
                (change.amplitudes.empty() || areClose(there->props.amplitudes, change.amplitudes)));
    });
}

void PipeWireHardware::setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID,
                                     const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    const std::optional<uint32_t> cardDevice = device->cardDevice(direction);
    if (!cardDevice)
        return reply->finish(kAudioHardwareUnknownPropertyError);
    const bool isInput = direction == HALDirection::Input;
    for (const PipeWireRoute& route : device->card()->routes(*cardDevice, isInput))
        if (PipeWireDevice::sourceID(route) == sourceID)
            device->card()->setRoute(route.index, *cardDevice, {});
    _finishWhen(reply, [this, deviceID, cardDevice, isInput, sourceID] {
        const PipeWireDevice* now = _devices.deviceWithID(deviceID);
        const PipeWireCard* card = now ? now->card() : nullptr;
        const std::optional<PipeWireRoute> active =
            card ? card->activeRoute(*cardDevice, isInput) : std::nullopt;
        return !card || (active && PipeWireDevice::sourceID(*active) == sourceID);
    });
}

void PipeWireHardware::chooseDefaultDevice(HALDefault which, AudioObjectID deviceID, const Reply& reply)
{
    const HALDirection direction = which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
    const PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    const std::string name = device->nodeName(direction);
    if (name.empty() || !_mirror.setDefault(direction == HALDirection::Input, name))
        return reply->finish(kAudioHardwareUnspecifiedError);
    _finishWhen(reply, [this, name, direction] {
        const PipeWireDefaultNames names = _mirror.defaultNames();
        return name == (direction == HALDirection::Input ? names.source : names.sink);
    });
}

// ---- IO

PipeWireDeviceIO::Wishes PipeWireHardware::_wishes(PipeWireDevice& device) const
{
    const HALDeviceState state = device.describe(_settings);
    return {device.wantedRate.value_or(state.nominalSampleRate),
            device.wantedFrameCount.value_or(state.bufferFrameSize), device.wantedRate.has_value(),
            device.wantedFrameCount.has_value()};
}

void PipeWireHardware::startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table, const Reply& reply)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device)
        return reply->finish(kAudioHardwareBadDeviceError);
    device->isEndingIO = false;
    device->io.reset();
    device->timeline.pause();
    _running[deviceID] = table;
    _makeIO(*device, table);
    _finishWhen(reply, [this, deviceID] {
        const PipeWireDevice* now = _devices.deviceWithID(deviceID);
        return !now || (now->io && now->io->clock().rate > 0.0);
    });
}

void PipeWireHardware::_makeIO(PipeWireDevice& device, const CXRef<HALIOProcTable>& table)
{
    const PipeWireDeviceIO::Wishes wishes = _wishes(device);
    device.io = std::make_unique<PipeWireDeviceIO>(
        _session, table, device.ends(), wishes, device.mostFrames(_settings), device.timeline,
        [this, deviceID = device.objectID] { _ioChanged(deviceID); });
}

void PipeWireHardware::_ioChanged(AudioObjectID deviceID)
{
    PipeWireDevice* device = _devices.deviceWithID(deviceID);
    if (!device || !device->io)
        return;
    _linkIO(*device);
    if (device->io->clock().rate > 0.0)
        _publish(*device);
    _finishShown();
}

void PipeWireHardware::_linkIO(PipeWireDevice& device)
{
    if (const std::optional<uint32_t> nodeID = device.io->nodeID())
        device.io->linkPorts(_mirror.portsOfNode(*nodeID));
}

void PipeWireHardware::stopIO(AudioObjectID deviceID, const Reply& reply)
{
    _running.erase(deviceID);
    if (PipeWireDevice* device = _devices.deviceWithID(deviceID); device && device->io) {
        device->io.reset();
        device->isEndingIO = true;
        _ioEnded.start(afterglow);
        _publish(*device);
    }
    reply->finish(kAudioHardwareNoError);
}
