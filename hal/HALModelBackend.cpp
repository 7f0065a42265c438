#include "HALModelBackend.h"

#include "AggregateRegistry.h"
#include "CXValue.h"
#include "GlobalQueue.h"
#include "HALDeviceProperties.h"
#include "HALPropertyWriter.h"
#include "HALTranslations.h"
#include "Utf8.h"

#include <algorithm>
#include <cmath>

namespace {

using Address = AudioObjectPropertyAddress;

AudioObjectID newObjectID()
{
    static std::atomic<AudioObjectID> last{kAudioObjectSystemObject};
    return ++last;
}

constexpr Address globalAddress(uint32_t selector)
{
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

constexpr std::array defaultSelectors{kAudioHardwarePropertyDefaultInputDevice,
                                      kAudioHardwarePropertyDefaultOutputDevice,
                                      kAudioHardwarePropertyDefaultSystemOutputDevice};

std::optional<HALDefault> defaultOfSelector(uint32_t selector)
{
    const auto found = std::ranges::find(defaultSelectors, selector);
    if (found == defaultSelectors.end())
        return std::nullopt;
    return static_cast<HALDefault>(found - defaultSelectors.begin());
}

constexpr HALDirection directionOf(HALDefault which)
{
    return which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
}

/// The value's bytes as a Value; '!siz' for any other number of bytes.
template <class Value> HALStatus readValue(std::span<const std::byte> bytes, Value& value)
{
    if (bytes.size() != sizeof value)
        return kAudioHardwareBadPropertySizeError;
    std::memcpy(&value, bytes.data(), sizeof value);
    return kAudioHardwareNoError;
}

} // namespace

/// A device of the model. Its state is under the model's lock; the rest has its own rule.
class HALModelBackend::Device final : public CXObject {
public:
    Device(AudioObjectID id, CXRef<HALIOProcTable> procs) : objectID(id), table(std::move(procs)) {}

    const AudioObjectID objectID;
    const CXRef<HALIOProcTable> table;
    HALDeviceState state;

    std::mutex ioMutex;                 // held through startIO() and stopIO(); taken before any other lock
    std::atomic<bool> isRunning{false}; // changed under ioMutex
    std::atomic<bool> isGone{false};    // set once, when the device leaves the model

    HALDeviceView view() const { return {objectID, state, isRunning.load()}; }
};

struct HALModelBackend::Object {
    CXRef<Device> device;
    HALDirection direction;
    size_t index;
};

class HALModelBackend::Aggregates final : public AggregateHost, public AggregateRegistry {
public:
    explicit Aggregates(HALModelBackend& model) : _model(model) {}

    HALBackend& backend() override { return _model; }
    AudioObjectID deviceForUID(const std::string& uid) const override { return _model.deviceWithUID(uid); }
    std::optional<HALDeviceState> stateOf(AudioObjectID deviceID) const override
    {
        return _model.deviceState(deviceID);
    }
    void changeState(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change) override
    {
        _model.updateDevice(deviceID, change);
    }
    CXRef<HALIOProcTable> tableOf(AudioObjectID deviceID) const override
    {
        return _model.ioProcTable(deviceID);
    }

private:
    HALModelBackend& _model;
};

HALModelBackend::HALModelBackend()
    : _notifier(std::make_unique<HALNotifier>()), _aggregates(std::make_unique<Aggregates>(*this))
{}

HALModelBackend::~HALModelBackend() = default;

void HALModelBackend::settle()
{
    _aggregates->flush();
    _notifier->flush();
}

void HALModelBackend::stopNotifying()
{
    _aggregates->shutDown();
    _notifier->stop();
}

HALStatus HALModelBackend::interceptRead(AudioObjectID /*objectID*/, const Address& /*address*/,
                                         bool /*isSize*/)
{
    return kAudioHardwareNoError;
}

// ---- The model

AudioObjectID HALModelBackend::addDevice(HALDeviceState state,
                                         const std::function<void(AudioObjectID)>& beforeVisible)
{
    const AudioObjectID deviceID = newObjectID();
    if (beforeVisible)
        beforeVisible(deviceID);
    auto device =
        CXRef<Device>::adopt(new Device(deviceID, HALIOProcTable::initWithDevice(deviceID, *_notifier)));
    device->table->setTiming(state.nominalSampleRate, state.bufferFrameSize);
    {
        const std::scoped_lock lock(_mutex);
        device->state = std::move(state);
        _numberStreams(device, {});
        _idsByUID.try_emplace(device->state.uid, deviceID);
        _devices.emplace(deviceID, device);
    }
    const Address devices = globalAddress(kAudioHardwarePropertyDevices);
    _notifier->post(kAudioObjectSystemObject, std::span(&devices, 1));
    _aggregates->devicesChanged();
    return deviceID;
}

bool HALModelBackend::removeDevice(AudioObjectID deviceID)
{
    const CXRef<Device> device = _device(deviceID);
    if (!device || device->isGone.exchange(true))
        return false;
    // Before the device is gone for clients: who finds it gone may rely on its callbacks being over.
    device->table->close();
    std::vector<Address> changed{globalAddress(kAudioHardwarePropertyDevices)};
    {
        const std::scoped_lock lock(_mutex);
        _devices.erase(deviceID);
        for (const HALDirectionState& direction : device->state.directions) {
            for (const HALStreamState& stream : direction.streams)
                _streams.erase(stream.objectID);
        }
        if (const auto known = _idsByUID.find(device->state.uid);
            known != _idsByUID.end() && known->second == deviceID)
            _idsByUID.erase(known);
        for (size_t which = 0; which < _defaults.size(); ++which) {
            if (_defaults[which] == deviceID) {
                _defaults[which] = kAudioObjectUnknown;
                changed.push_back(globalAddress(defaultSelectors[which]));
            }
        }
    }
    _notifier->post(kAudioObjectSystemObject, changed);
    _aggregates->devicesChanged();
    return true;
}

bool HALModelBackend::updateDevice(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change)
{
    const CXRef<Device> device = _device(deviceID);
    if (!device)
        return false;
    std::vector<Address> changed;
    bool hasShownOrHidden = false;
    bool isAggregate = false;
    {
        const std::scoped_lock lock(_mutex);
        const HALDeviceState before = device->state;
        isAggregate = before.aggregate.has_value();
        change(device->state);
        hasShownOrHidden = before.isHidden != device->state.isHidden;
        _numberStreams(device, before);
        changed = halChangedAddresses(before, device->state);
        device->table->setTiming(device->state.nominalSampleRate, device->state.bufferFrameSize);
    }
    _notifier->post(deviceID, changed);
    if (hasShownOrHidden) { // for clients that show what is not hidden, the list has changed
        const Address devices = globalAddress(kAudioHardwarePropertyDevices);
        _notifier->post(kAudioObjectSystemObject, std::span(&devices, 1));
    }
    if (!isAggregate && !changed.empty())
        _aggregates->devicesChanged();
    return true;
}

void HALModelBackend::_numberStreams(const CXRef<Device>& device, const HALDeviceState& before)
{
    for (const HALDirection direction : halDirections) {
        const std::vector<HALStreamState>& old = before[direction].streams;
        for (const HALStreamState& stream : old)
            _streams.erase(stream.objectID);
        std::vector<HALStreamState>& streams = device->state[direction].streams;
        for (size_t index = 0; index < streams.size(); ++index) {
            AudioObjectID& id = streams[index].objectID;
            if (id == kAudioObjectUnknown)
                id = index < old.size() ? old[index].objectID : newObjectID();
            _streams.insert_or_assign(id, Object{device, direction, index});
        }
    }
}

std::optional<HALDeviceState> HALModelBackend::deviceState(AudioObjectID deviceID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _devices.find(deviceID);
    return found == _devices.end() ? std::nullopt : std::optional(found->second->state);
}

std::vector<AudioObjectID> HALModelBackend::deviceIDs() const
{
    std::vector<AudioObjectID> ids;
    const std::scoped_lock lock(_mutex);
    ids.reserve(_devices.size());
    for (const auto& [deviceID, device] : _devices)
        ids.push_back(deviceID);
    return ids;
}

AudioObjectID HALModelBackend::deviceWithUID(const std::string& uid) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _idsByUID.find(uid);
    return found == _idsByUID.end() ? kAudioObjectUnknown : found->second;
}

AudioObjectID HALModelBackend::defaultDevice(HALDefault which) const
{
    const std::scoped_lock lock(_mutex);
    return _defaults[static_cast<size_t>(which)];
}

void HALModelBackend::setDefaultDevice(HALDefault which, AudioObjectID deviceID)
{
    const auto index = static_cast<size_t>(which);
    {
        const std::scoped_lock lock(_mutex);
        if (_defaults[index] == deviceID || (deviceID != kAudioObjectUnknown && !_devices.contains(deviceID)))
            return;
        _defaults[index] = deviceID;
    }
    const Address changed = globalAddress(defaultSelectors[index]);
    _notifier->post(kAudioObjectSystemObject, std::span(&changed, 1));
}

CXRef<HALIOProcTable> HALModelBackend::ioProcTable(AudioObjectID deviceID) const
{
    const CXRef<Device> device = _device(deviceID);
    return device ? device->table : nullptr;
}

CXRef<HALModelBackend::Device> HALModelBackend::_device(AudioObjectID deviceID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _devices.find(deviceID);
    return found == _devices.end() ? nullptr : found->second;
}

// ---- Reading

HALStatus HALModelBackend::propertySize(AudioObjectID objectID, const Address& address,
                                        std::span<const std::byte> /*qualifier*/, uint32_t& size)
{
    HALPropertyWriter counter;
    const HALStatus status = _answer(objectID, address, counter);
    if (status == kAudioHardwareNoError)
        size = counter.size();
    return status;
}

HALStatus HALModelBackend::readProperty(AudioObjectID objectID, const Address& address,
                                        std::span<const std::byte> /*qualifier*/, std::span<std::byte> out,
                                        uint32_t& size)
{
    HALPropertyWriter writer(out);
    const HALStatus status = _answer(objectID, address, writer);
    if (status != kAudioHardwareNoError)
        return status;
    if (!writer.fits())
        return kAudioHardwareBadPropertySizeError;
    size = writer.size();
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::_answer(AudioObjectID objectID, const Address& address, HALPropertyWriter& writer)
{
    if (const HALIOProcTable* table = HALIOProcTable::onIOThreadOf(objectID)) {
        if (address.selector == kAudioDevicePropertyNominalSampleRate)
            return writer.put(table->nominalSampleRate()), kAudioHardwareNoError;
        if (address.selector == kAudioDevicePropertyBufferFrameSize)
            return writer.put(table->bufferFrameSize()), kAudioHardwareNoError;
    }
    if (const HALStatus status = interceptRead(objectID, address, writer.isCounting()))
        return status;
    if (objectID == kAudioObjectSystemObject) {
        waitUntilEnumerated();
        return _answerSystem(address, writer);
    }
    if (address == globalAddress(kAudioAggregateDevicePropertySubDeviceStatus)) {
        if (const CXRef<AggregateDevice> aggregate = _aggregates->device(objectID)) {
            for (const AudioAggregateSubDeviceStatus& each : aggregate->status())
                writer.put(each);
            return kAudioHardwareNoError;
        }
    }
    const std::scoped_lock lock(_mutex);
    if (const auto device = _devices.find(objectID); device != _devices.end())
        return _answerDevice(*device->second, address, writer);
    if (const auto stream = _streams.find(objectID); stream != _streams.end()) {
        const auto& [device, direction, index] = stream->second;
        return halAnswerStream(device->view(), direction, index, address, writer);
    }
    return kAudioHardwareBadObjectError;
}

HALStatus HALModelBackend::_answerSystem(const Address& address, HALPropertyWriter& writer) const
{
    if (address.scope != kAudioObjectPropertyScopeGlobal ||
        address.element != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    if (const std::optional<HALDefault> which = defaultOfSelector(address.selector)) {
        writer.put(defaultDevice(*which));
        return kAudioHardwareNoError;
    }
    switch (address.selector) {
    case kAudioHardwarePropertyDevices:
    case kAudioObjectPropertyOwnedObjects:
        for (const AudioObjectID deviceID : deviceIDs())
            writer.put(deviceID);
        return kAudioHardwareNoError;
    case kAudioObjectPropertyClass:
        writer.put(kAudioSystemObjectClassID);
        return kAudioHardwareNoError;
    case kAudioObjectPropertyBaseClass:
        writer.put(kAudioObjectClassID);
        return kAudioHardwareNoError;
    case kAudioObjectPropertyOwner:
        writer.put(kAudioObjectUnknown);
        return kAudioHardwareNoError;
    case kAudioHardwarePropertyDeviceForUID:
    case kAudioHardwarePropertyPlugInForBundleID:
        return _answerSystemTranslation(address.selector, writer);
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

HALStatus HALModelBackend::_answerSystemTranslation(uint32_t selector, HALPropertyWriter& writer) const
{
    AudioValueTranslation translation{};
    if (!writer.isCounting()) {
        const CXObject* text = nullptr;
        AudioObjectID found = kAudioObjectUnknown;
        if (const HALStatus status = halTakeTranslation(writer, translation, sizeof text, sizeof found))
            return status;
        std::memcpy(&text, translation.inputData, sizeof text);
        const auto* uid = dynamic_cast<const CXValue*>(text);
        if (!uid)
            return kAudioHardwareIllegalOperationError;
        if (selector == kAudioHardwarePropertyDeviceForUID)
            found = deviceWithUID(uid->string());
        std::memcpy(translation.outputData, &found, sizeof found);
    }
    writer.put(translation);
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::_answerDevice(const Device& device, const Address& address,
                                         HALPropertyWriter& writer)
{
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    if (direction && address.element == kAudioObjectPropertyElementMain) {
        if (address.selector == kAudioDevicePropertyDataSourceNameForIDCFString)
            return halAnswerSourceName(device.state[*direction], writer);
        if (address.selector == kAudioDevicePropertyIOProcStreamUsage)
            return halAnswerStreamUsage(*device.table, *direction, device.state[*direction].streams.size(),
                                        writer);
    }
    return halAnswerDevice(device.view(), address, writer);
}

// ---- Writing

HALStatus HALModelBackend::writeProperty(AudioObjectID objectID, const Address& address,
                                         std::span<const std::byte> /*qualifier*/,
                                         std::span<const std::byte> value)
{
    if (objectID == kAudioObjectSystemObject)
        return _writeSystem(address, value);
    CXRef<Device> device;
    HALDeviceState state; // as it is now; the hooks run without the lock
    std::optional<HALStreamState> stream;
    {
        const std::scoped_lock lock(_mutex);
        if (const auto found = _devices.find(objectID); found != _devices.end()) {
            device = found->second;
        } else if (const auto owned = _streams.find(objectID); owned != _streams.end()) {
            device = owned->second.device;
            stream = device->state[owned->second.direction].streams[owned->second.index];
        } else {
            return kAudioHardwareBadObjectError;
        }
        state = device->state;
    }
    return stream ? _writeStream(device->objectID, state, *stream, address, value)
                  : _writeDevice(*device, state, address, value);
}

HALStatus HALModelBackend::_writeSystem(const Address& address, std::span<const std::byte> value)
{
    HALPropertyWriter counter;
    if (const HALStatus status = _answerSystem(address, counter))
        return status;
    const std::optional<HALDefault> which = defaultOfSelector(address.selector);
    if (!which)
        return kAudioHardwareIllegalOperationError;
    AudioObjectID deviceID = kAudioObjectUnknown;
    if (const HALStatus status = readValue(value, deviceID))
        return status;
    const std::optional<HALDeviceState> state = deviceState(deviceID);
    if (!state)
        return kAudioHardwareBadDeviceError;
    const HALDirectionState& direction = (*state)[directionOf(*which)];
    if (direction.streams.empty() || !direction.canBeDefault)
        return kAudioHardwareIllegalOperationError;
    return chooseDefaultDevice(*which, deviceID);
}

HALStatus HALModelBackend::_writeDevice(Device& device, const HALDeviceState& state, const Address& address,
                                        std::span<const std::byte> value)
{
    HALPropertyWriter counter;
    {
        const std::scoped_lock lock(_mutex);
        if (const HALStatus status =
                _answerDevice(device, address, counter)) // what cannot be read is not there
            return status;
    }
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    switch (address.selector) {
    case kAudioDevicePropertyNominalSampleRate:
        return _writeSampleRate(device.objectID, state, value);
    case kAudioDevicePropertyBufferFrameSize:
        return _writeBufferFrameSize(device.objectID, state, value);
    case kAudioDevicePropertyVolumeScalar:
    case kAudioDevicePropertyVolumeDecibels:
        return _writeVolume(device.objectID, *direction, address, value);
    case kAudioDevicePropertyMute: {
        uint32_t muted = 0;
        const HALStatus status = readValue(value, muted);
        return status ? status : _carryOutMute(device.objectID, *direction, muted != 0);
    }
    case kAudioDevicePropertyDataSource:
        return _writeDataSource(device.objectID, state[*direction], *direction, value);
    case kAudioObjectPropertyName:
        return _writeName(device.objectID, value);
    case kAudioDevicePropertyIOProcStreamUsage:
        return halWriteStreamUsage(*device.table, *direction, value);
    default:
        return kAudioHardwareIllegalOperationError;
    }
}

HALStatus HALModelBackend::_writeSampleRate(AudioObjectID deviceID, const HALDeviceState& state,
                                            std::span<const std::byte> value)
{
    double rate = 0.0;
    if (const HALStatus status = readValue(value, rate))
        return status;
    if (!state.canSampleRate(rate))
        return kAudioHardwareIllegalOperationError;
    return _carryOutRate(deviceID, rate);
}

HALStatus HALModelBackend::_writeBufferFrameSize(AudioObjectID deviceID, const HALDeviceState& state,
                                                 std::span<const std::byte> value)
{
    uint32_t frameCount = 0;
    if (const HALStatus status = readValue(value, frameCount))
        return status;
    if (frameCount < state.bufferFrameSizeRange.minimum || frameCount > state.bufferFrameSizeRange.maximum)
        return kAudioHardwareIllegalOperationError;
    return _carryOutFrames(deviceID, frameCount);
}

HALStatus HALModelBackend::_writeVolume(AudioObjectID deviceID, HALDirection direction,
                                        const Address& address, std::span<const std::byte> value)
{
    float volume = 0.0F;
    if (const HALStatus status = readValue(value, volume))
        return status;
    if (std::isnan(volume))
        return kAudioHardwareIllegalOperationError;
    if (address.selector == kAudioDevicePropertyVolumeDecibels)
        volume = halScalarFromDecibels(volume);
    volume = std::clamp(volume, 0.0F, 1.0F);
    if (const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID))
        return aggregate->setVolume(direction, volume);
    return setVolume(deviceID, direction, address.element, volume);
}

HALStatus HALModelBackend::_writeDataSource(AudioObjectID deviceID, const HALDirectionState& state,
                                            HALDirection direction, std::span<const std::byte> value)
{
    uint32_t sourceID = 0;
    if (const HALStatus status = readValue(value, sourceID))
        return status;
    if (std::ranges::find(state.dataSources, sourceID, &HALDataSourceState::sourceID) ==
        state.dataSources.end())
        return kAudioHardwareIllegalOperationError;
    return setDataSource(deviceID, direction, sourceID);
}

HALStatus HALModelBackend::_writeStream(AudioObjectID deviceID, const HALDeviceState& state,
                                        const HALStreamState& stream, const Address& address,
                                        std::span<const std::byte> value)
{
    if (address.selector != kAudioStreamPropertyVirtualFormat &&
        address.selector != kAudioStreamPropertyPhysicalFormat)
        return kAudioHardwareIllegalOperationError;
    AudioStreamBasicDescription wanted{};
    if (const HALStatus status = readValue(value, wanted))
        return status;
    // Samples are always floats here; all a client can choose is the rate.
    const AudioStreamBasicDescription offered = halStreamFormat(stream.channelCount, wanted.sampleRate);
    if (wanted != offered || !state.canSampleRate(wanted.sampleRate))
        return kAudioHardwareIllegalOperationError;
    return _carryOutRate(deviceID, wanted.sampleRate);
}

// ---- Aggregate devices

HALStatus HALModelBackend::createAggregateDevice(const CXValue& description, AudioObjectID& deviceID)
{
    std::optional<AggregateDescription> valid = AggregateDescription::of(description.plist());
    if (!valid)
        return kAudioHardwareIllegalOperationError;
    waitUntilEnumerated();
    const std::scoped_lock creation(_creationMutex);
    if (deviceWithUID(valid->uid) != kAudioObjectUnknown)
        return kAudioHardwareIllegalOperationError;
    const auto aggregate = AggregateDevice::initWithDescription(*_aggregates, std::move(*valid));
    deviceID = addDevice(aggregate->initialState(), [&](AudioObjectID newID) {
        aggregate->setObjectID(newID);
        _aggregates->add(newID, aggregate);
    });
    _aggregates->devicesChanged(); // what changed since it looked
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::destroyAggregateDevice(AudioObjectID deviceID)
{
    if (HALIOProcTable::onIOThreadOf(deviceID))
        return kAudioHardwareIllegalOperationError;
    const CXRef<AggregateDevice> aggregate = _aggregates->remove(deviceID);
    if (!aggregate)
        return _device(deviceID) ? kAudioHardwareIllegalOperationError : kAudioHardwareBadDeviceError;
    removeDevice(deviceID);
    aggregate->end();
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::_carryOutRate(AudioObjectID deviceID, double rate)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setNominalSampleRate(rate) : setNominalSampleRate(deviceID, rate);
}

HALStatus HALModelBackend::_carryOutFrames(AudioObjectID deviceID, uint32_t frameCount)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setBufferFrameSize(frameCount) : setBufferFrameSize(deviceID, frameCount);
}

HALStatus HALModelBackend::_carryOutMute(AudioObjectID deviceID, HALDirection direction, bool muted)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setMuted(direction, muted) : setMuted(deviceID, direction, muted);
}

HALStatus HALModelBackend::_startHardware(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->startIO(table) : startIO(deviceID, table);
}

void HALModelBackend::_stopHardware(AudioObjectID deviceID)
{
    if (const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID))
        aggregate->stopIO();
    else
        stopIO(deviceID);
}

HALStatus HALModelBackend::_writeName(AudioObjectID deviceID, std::span<const std::byte> value)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    if (!aggregate)
        return kAudioHardwareIllegalOperationError;
    const CXObject* object = nullptr;
    if (const HALStatus status = readValue(value, object))
        return status;
    const auto* name = dynamic_cast<const CXValue*>(object);
    if (!name || !name->plist().is_string())
        return kAudioHardwareIllegalOperationError;
    return aggregate->setName(platform::utf8Replaced(name->string()));
}

// ---- Listeners

HALStatus HALModelBackend::addListener(AudioObjectID objectID, const Address& address,
                                       const HALListener& listener)
{
    {
        const std::scoped_lock lock(_mutex);
        if (objectID != kAudioObjectSystemObject && !_devices.contains(objectID) &&
            !_streams.contains(objectID))
            return kAudioHardwareBadObjectError;
    }
    return _notifier->addListener(objectID, address, listener);
}

HALStatus HALModelBackend::removeListener(AudioObjectID objectID, const Address& address,
                                          const HALListener& listener)
{
    return _notifier->removeListener(objectID, address, listener);
}

// ---- IO

HALStatus HALModelBackend::createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                                        AudioDeviceIOProcID& procID)
{
    const CXRef<Device> device = _device(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    procID = device->table->create(block);
    if (procID)
        return kAudioHardwareNoError;
    return device->isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
}

HALStatus HALModelBackend::start(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable::onIOThreadOf(deviceID))
        return kAudioHardwareIllegalOperationError;
    const CXRef<Device> device = _device(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    const std::scoped_lock lock(device->ioMutex);
    if (!device->table->start(procID))
        return device->isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
    if (device->isRunning)
        return kAudioHardwareNoError;
    if (const HALStatus status = _startHardware(deviceID, device->table)) {
        device->table->stop(procID);
        return status;
    }
    if (device->isGone) { // it went while its IO was being started
        _stopHardware(deviceID);
        return kAudioHardwareBadDeviceError;
    }
    device->isRunning = true;
    _announceRunning(deviceID);
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::stop(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable* table = HALIOProcTable::onIOThreadOf(deviceID)) {
        const bool wasStarted = table->stop(procID);
        _stopIfIdleLater(deviceID);
        return wasStarted ? kAudioHardwareNoError : kAudioHardwareNotRunningError;
    }
    const CXRef<Device> device = _device(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    const std::scoped_lock lock(device->ioMutex);
    if (!device->table->stop(procID))
        return kAudioHardwareNotRunningError;
    _stopIfIdle(*device);
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable* table = HALIOProcTable::onIOThreadOf(deviceID)) {
        const bool wasThere = table->destroy(procID);
        _stopIfIdleLater(deviceID);
        return wasThere ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
    }
    const CXRef<Device> device = _device(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    const std::scoped_lock lock(device->ioMutex);
    if (!device->table->destroy(procID))
        return device->isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
    _stopIfIdle(*device);
    return kAudioHardwareNoError;
}

void HALModelBackend::_stopIfIdle(Device& device)
{
    if (!device.isRunning || device.table->startedCount() > 0)
        return;
    _stopHardware(device.objectID);
    device.isRunning = false;
    _announceRunning(device.objectID);
}

void HALModelBackend::_stopIfIdleLater(AudioObjectID deviceID)
{
    const CXRealtimeExemption exemption("a callback that stops its device hands the rest to another thread");
    platform::GlobalQueue::highPriority().async([self = CXRef(this), deviceID] {
        if (const CXRef<Device> device = self->_device(deviceID)) {
            const std::scoped_lock lock(device->ioMutex);
            self->_stopIfIdle(*device);
        }
    });
}

void HALModelBackend::_announceRunning(AudioObjectID deviceID)
{
    const Address changed = globalAddress(kAudioDevicePropertyDeviceIsRunning);
    _notifier->post(deviceID, std::span(&changed, 1));
}
