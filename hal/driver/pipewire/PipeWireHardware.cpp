#include "PipeWireHardware.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

bool areClose(const std::vector<float>& a, const std::vector<float>& b)
{
    return std::ranges::equal(a, b, [](float x, float y) { return std::abs(x - y) <= 1e-5F; });
}

} // namespace

PipeWireHardware::PipeWireHardware(PipeWireLoop& loop, PipeWireHardwareOwner& owner, HALDriverSink& sink,
                                   const std::optional<std::string>& remote)
    : _owner(owner), _sink(sink), _session(loop, *this, remote), _mirror(_session, *this),
      _devices(loop, _mirror, *this), _runs(loop, _session, _mirror, *this)
{}

PipeWireHardware::~PipeWireHardware()
{
    _session.disconnect(); // while the members that it calls back still exist
}

// ---- The session

void PipeWireHardware::sessionConnected()
{
    _owner.serverFound(true);
    _mirror.connected();
}

void PipeWireHardware::sessionDisconnected()
{
    _owner.serverFound(false); // first: who is told that the devices go may ask for the reason
    _devices.forgetAll();
    _runs.connectionLost();
    _mirror.disconnected();
    for (const Pending& pending : std::exchange(_pending, {}))
        pending.reply->finish(kAudioHardwareUnspecifiedError);
}

void PipeWireHardware::sessionFoundNoServer()
{
    _owner.enumerated();
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
    _runs.setClockSettings(settings);
    for (PipeWireDevice* device : _devices.all())
        _publish(*device);
}

void PipeWireHardware::defaultsChanged()
{
    const PipeWireDefaultNames names = _mirror.defaultNames();
    const auto driverOf = [this](const std::string& name, HALDirection direction) -> HALDeviceDriver* {
        const PipeWireDevice* device = _devices.deviceWithNode(name, direction);
        return device ? device->driver.get() : nullptr;
    };
    HALDeviceDriver* const output = driverOf(names.sink, HALDirection::Output);
    _sink.defaultChanged(HALDefault::Input, driverOf(names.source, HALDirection::Input));
    _sink.defaultChanged(HALDefault::Output, output);
    _sink.defaultChanged(HALDefault::SystemOutput, output);
}

void PipeWireHardware::changesEnded()
{
    _finishShown();
}

void PipeWireHardware::enumerated()
{
    _devices.enumerated();
    defaultsChanged();
    _owner.enumerated();
}

void PipeWireHardware::portAppeared(uint32_t /*nodeID*/)
{
    _runs.portAppeared();
}

// ---- The devices

void PipeWireHardware::deviceAppeared(PipeWireDevice& device)
{
    device.driver = _owner.makeDriver();
    _sink.deviceAdded(device.driver, device.describe(_settings));
    // The device may have been the default while it was held back.
    defaultsChanged();
}

void PipeWireHardware::deviceChanged(PipeWireDevice& device)
{
    _publish(device);
    _runs.deviceChanged(device);
}

void PipeWireHardware::deviceDisappears(PipeWireDevice& device)
{
    _runs.deviceDisappears(device);
    _sink.deviceRemoved(*device.driver);
}

PipeWireDevice* PipeWireHardware::deviceOf(const HALDeviceDriver* driver) const
{
    const std::vector<PipeWireDevice*> all = _devices.all();
    const auto found =
        std::ranges::find(all, driver, [](const PipeWireDevice* each) { return each->driver.get(); });
    return !driver || found == all.end() ? nullptr : *found;
}

void PipeWireHardware::_publish(PipeWireDevice& device)
{
    if (device.isPresent()) // otherwise its removal is about to be reported
        _sink.deviceChanged(*device.driver, device.describe(_settings));
}

// ---- Writes

/// Finishes `reply` once the server has handled everything sent so far and `shows` returns true.
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

/// The same for a device; also finishes `reply` when the device disappears.
void PipeWireHardware::_finishWhen(const PipeWireDevice& device, const Reply& reply,
                                   std::function<bool(const PipeWireDevice&)> shows)
{
    _finishWhen(reply, [this, reply, driver = device.driver, shows = std::move(shows)] {
        const PipeWireDevice* now = deviceOf(driver.get());
        if (!now)
            reply->finish(kAudioHardwareBadDeviceError);
        return now && shows(*now);
    });
}

void PipeWireHardware::_finishShown()
{
    if (!_mirror.isTold())
        return; // update the model first: a read after the write must return the new value
    for (const Pending& pending : _pending)
        if (!pending.reply->isOver() && pending.reply->isAccepted() && pending.shows())
            pending.reply->finish(kAudioHardwareNoError);
    _dropFinished();
}

void PipeWireHardware::_dropFinished()
{
    std::erase_if(_pending, [](const Pending& pending) { return pending.reply->isOver(); });
}

void PipeWireHardware::setNominalSampleRate(PipeWireDevice& device, double rate, const Reply& reply)
{
    device.wantedRate = rate;
    _runs.setRate(device, rate);
    _finishWhenRuns(device, reply, [=](const PipeWireClockSeen& clock) { return clock.rate == rate; });
}

void PipeWireHardware::setBufferFrameSize(PipeWireDevice& device, uint32_t frameCount, const Reply& reply)
{
    device.wantedFrameCount = frameCount;
    _runs.setFrameCount(device, frameCount);
    _finishWhenRuns(device, reply,
                    [=](const PipeWireClockSeen& clock) { return clock.frameCount == frameCount; });
}

/// Replies once the clock of every run of the device satisfies `shows`. Without a run, replies at once: the
/// value takes effect at the next start.
void PipeWireHardware::_finishWhenRuns(PipeWireDevice& device, const Reply& reply,
                                       const std::function<bool(const PipeWireClockSeen&)>& shows)
{
    if (device.runs.empty()) {
        _publish(device);
        return reply->finish(kAudioHardwareNoError);
    }
    _finishWhen(device, reply, [shows](const PipeWireDevice& now) {
        return std::ranges::all_of(now.runs,
                                   [&](const PipeWireDeviceRun* run) { return shows(run->clock()); });
    });
}

void PipeWireHardware::setVolume(PipeWireDevice& device, HALDirection direction, uint32_t element,
                                 float scalar, const Reply& reply)
{
    const std::optional<PipeWireDevice::VolumePlace> place = device.volumePlace(direction);
    if (!place)
        return reply->finish(kAudioHardwareUnknownPropertyError);
    // Each write sends the amplitudes of all channels. It must not undo an earlier write of another channel
    // that the server does not show yet.
    _dropFinished();
    std::weak_ptr<PipeWireDevice::SentVolume>& last = device.sentVolumes[static_cast<size_t>(direction)];
    std::shared_ptr<PipeWireDevice::SentVolume> sent = last.lock();
    HALVolume volume = device.volume(direction);
    if (sent && sent->route == place->route)
        volume.setAmplitudes(sent->amplitudes);
    else
        last = sent = std::make_shared<PipeWireDevice::SentVolume>();
    PipeWireVolumeProps change;
    change.amplitudes = volume.amplitudesAfter(element, scalar);
    *sent = {place->route, change.amplitudes};
    _sendVolumeProps(device, direction, *place, change);
    _finishWhen(device, reply, [direction, own = change.amplitudes, sent](const PipeWireDevice& now) {
        const std::optional<PipeWireDevice::VolumePlace> there = now.volumePlace(direction);
        // The server may show only the last of several writes.
        return !there || areClose(there->props.amplitudes, own) ||
               areClose(there->props.amplitudes, sent->amplitudes);
    });
}

void PipeWireHardware::setMuted(PipeWireDevice& device, HALDirection direction, bool muted,
                                const Reply& reply)
{
    PipeWireVolumeProps change;
    change.isMuted = muted;
    const std::optional<PipeWireDevice::VolumePlace> place = device.volumePlace(direction);
    if (!place)
        return reply->finish(kAudioHardwareUnknownPropertyError);
    _sendVolumeProps(device, direction, *place, change);
    _finishWhen(device, reply, [direction, muted](const PipeWireDevice& now) {
        const std::optional<PipeWireDevice::VolumePlace> there = now.volumePlace(direction);
        return !there || there->props.isMuted == muted;
    });
}

void PipeWireHardware::_sendVolumeProps(PipeWireDevice& device, HALDirection direction,
                                        const PipeWireDevice::VolumePlace& place,
                                        const PipeWireVolumeProps& change)
{
    if (place.route)
        device.card()->setRoute(*place.route, place.cardDevice, change);
    else
        device.node(direction)->setVolumeProps(change);
}

void PipeWireHardware::setDataSource(PipeWireDevice& device, HALDirection direction, uint32_t sourceID,
                                     const Reply& reply)
{
    const std::optional<uint32_t> cardDevice = device.cardDevice(direction);
    if (!cardDevice)
        return reply->finish(kAudioHardwareUnknownPropertyError);
    const bool isInput = direction == HALDirection::Input;
    for (const PipeWireRoute& route : device.card()->routes(*cardDevice, isInput))
        if (PipeWireDevice::sourceID(route) == sourceID)
            device.card()->setRoute(route.index, *cardDevice, {});
    _finishWhen(device, reply, [cardDevice, isInput, sourceID](const PipeWireDevice& now) {
        const PipeWireCard* card = now.card();
        const std::optional<PipeWireRoute> active =
            card ? card->activeRoute(*cardDevice, isInput) : std::nullopt;
        return !card || (active && PipeWireDevice::sourceID(*active) == sourceID);
    });
}

void PipeWireHardware::chooseDefaultDevice(HALDefault which, const PipeWireDevice& device, const Reply& reply)
{
    const HALDirection direction = which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
    const std::string& name = device.nodeName(direction);
    if (name.empty() || !_mirror.setDefault(direction == HALDirection::Input, name))
        return reply->finish(kAudioHardwareUnspecifiedError);
    _finishWhen(reply, [this, name, direction] {
        const PipeWireDefaultNames names = _mirror.defaultNames();
        return name == (direction == HALDirection::Input ? names.source : names.sink);
    });
}

// ---- IO

void PipeWireHardware::startIO(PipeWireDevice& device, const CXRef<HALIOProcTable>& table,
                               PipeWireRun::Time deadline, const Reply& reply)
{
    _runs.start(device, table, deadline, reply);
}

void PipeWireHardware::stopIO(PipeWireDevice& device, const Reply& reply)
{
    _runs.stop(device);
    reply->finish(kAudioHardwareNoError);
}

void PipeWireHardware::startTogether(uint64_t groupNumber, const std::vector<HALGroupMember>& members,
                                     const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
                                     const Reply& reply)
{
    std::vector<PipeWireRun::Member> all;
    for (const HALGroupMember& member : members) {
        PipeWireDevice* device = deviceOf(member.device.get());
        if (!device && member.device)
            return reply->finish(kAudioHardwareBadDeviceError);
        if (member.inputChannels.size() > 1 || member.outputChannels.size() > 1)
            return reply->finish(kAudioHardwareIllegalOperationError); // one stream per direction at most
        const auto channels = [](const std::vector<uint32_t>& streams) {
            return streams.empty() ? 0 : streams.front();
        };
        all.push_back(
            {device, member.table, {channels(member.inputChannels), channels(member.outputChannels)}});
    }
    _runs.startGroup(groupNumber, std::move(all), table, deadline, reply);
}

void PipeWireHardware::setGroupMember(uint64_t groupNumber, size_t place,
                                      const CXRef<HALDeviceDriver>& driver,
                                      const CXRef<HALIOProcTable>& table, const Reply& reply)
{
    PipeWireDevice* device = deviceOf(driver.get());
    if (!device && driver)
        return reply->finish(kAudioHardwareBadDeviceError);
    reply->finish(_runs.setGroupMember(groupNumber, place, device, table));
}

void PipeWireHardware::stopTogether(uint64_t groupNumber, const Reply& reply)
{
    _runs.stopGroup(groupNumber);
    reply->finish(kAudioHardwareNoError);
}
