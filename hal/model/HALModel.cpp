#include "HALModel.h"

#include "AggregateRegistry.h"
#include "CXValue.h"
#include "GlobalQueue.h"
#include "HALDeviceWrites.h"
#include "HALTranslations.h"

#include <algorithm>

namespace {

using Address = AudioObjectPropertyAddress;

constexpr std::chrono::seconds maxWaitForHardware{2};
constexpr std::chrono::seconds maxWaitForStart{5}; // of which a wireless device may need some

constexpr Address globalAddress(uint32_t selector)
{
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

constexpr std::array deviceListSelectors{kAudioHardwarePropertyDevices, kAudioObjectPropertyOwnedObjects};
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

HALDeadline deadlineFromNow(std::chrono::seconds maxWait = maxWaitForHardware)
{
    return std::chrono::steady_clock::now() + maxWait;
}

} // namespace

CXRef<HALModel> HALModel::initWithDriver(const CXRef<HALHardwareDriver>& driver)
{
    auto model = CXRef<HALModel>::adopt(new HALModel(driver));
    driver->start(*model);
    return model;
}

HALModel::HALModel(const CXRef<HALHardwareDriver>& driver)
    : _driver(driver), _notifier(std::make_unique<HALNotifier>()),
      _aggregates(std::make_unique<AggregateRegistry>())
{}

HALModel::~HALModel()
{
    _aggregates->shutDown(); // first: their IO runs on the driver's devices
    _driver->stop();
    _notifier->stop();
}

void HALModel::settle()
{
    _aggregates->flush();
    _notifier->flush();
}

// ---- What drivers report

AudioObjectID HALModel::deviceAdded(const CXRef<HALDeviceDriver>& driver, const HALDeviceState& state)
{
    const CXRef<HALDevice> device = HALDevice::initWithDriver(driver, *_notifier);
    {
        const std::scoped_lock lock(_mutex);
        if (!_byUID.try_emplace(state.uid, device).second)
            return kAudioObjectUnknown;
        device->setState(state);
        _devices.emplace(device->objectID(), device);
        _byDriver.emplace(driver.get(), device);
        for (const AudioObjectID streamID : device->streamIDs())
            _byStream.emplace(streamID, device);
    }
    _announceDeviceList();
    _aggregates->devicesChanged();
    return device->objectID();
}

void HALModel::deviceChanged(const HALDeviceDriver& driver, const HALDeviceState& state)
{
    bool isHiddenOrShown = false;
    {
        const std::scoped_lock lock(_mutex);
        const auto found = _byDriver.find(&driver);
        if (found == _byDriver.end())
            return;
        const CXRef<HALDevice> device = found->second;
        isHiddenOrShown = device->state().isHidden != state.isHidden;
        for (const AudioObjectID streamID : device->streamIDs())
            _byStream.erase(streamID);
        device->setState(state); // its listeners find the streams registered: they wait for our lock
        for (const AudioObjectID streamID : device->streamIDs())
            _byStream.emplace(streamID, device);
    }
    if (isHiddenOrShown) // the list of visible devices has changed
        _announceDeviceList();
    if (!state.aggregate)
        _aggregates->devicesChanged();
}

void HALModel::deviceRemoved(const HALDeviceDriver& driver)
{
    const CXRef<HALDevice> device = _deviceOf(driver);
    // Clients may rely on this order: the callbacks end before the device is removed from the list.
    if (!device || !device->close())
        return;
    std::vector<Address> changed;
    {
        const std::scoped_lock lock(_mutex);
        _devices.erase(device->objectID());
        _byDriver.erase(&driver);
        _byUID.erase(device->state().uid);
        for (const AudioObjectID streamID : device->streamIDs())
            _byStream.erase(streamID);
        for (size_t which = 0; which < _defaults.size(); ++which) {
            if (_defaults[which] == device->objectID()) {
                _defaults[which] = kAudioObjectUnknown;
                changed.push_back(globalAddress(defaultSelectors[which]));
            }
        }
    }
    _announceDeviceList(std::move(changed));
    _aggregates->devicesChanged();
}

void HALModel::defaultChanged(HALDefault which, const HALDeviceDriver* driver)
{
    const auto index = static_cast<size_t>(which);
    {
        const std::scoped_lock lock(_mutex);
        AudioObjectID deviceID = kAudioObjectUnknown;
        if (driver) {
            const auto found = _byDriver.find(driver);
            if (found == _byDriver.end())
                return;
            deviceID = found->second->objectID();
        }
        if (std::exchange(_defaults[index], deviceID) == deviceID)
            return;
    }
    const Address changed = globalAddress(defaultSelectors[index]);
    _notifier->post(kAudioObjectSystemObject, std::span(&changed, 1));
}

void HALModel::_announceDeviceList(std::vector<Address> besides)
{
    for (const uint32_t selector : deviceListSelectors)
        besides.push_back(globalAddress(selector));
    _notifier->post(kAudioObjectSystemObject, besides);
}

// ---- Looking up

CXRef<HALDevice> HALModel::_device(AudioObjectID deviceID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _devices.find(deviceID);
    return found == _devices.end() ? nullptr : found->second;
}

CXRef<HALDevice> HALModel::_deviceOf(const HALDeviceDriver& driver) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _byDriver.find(&driver);
    return found == _byDriver.end() ? nullptr : found->second;
}

CXRef<HALDevice> HALModel::_deviceWithUID(const std::string& uid) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _byUID.find(uid);
    return found == _byUID.end() ? nullptr : found->second;
}

CXRef<HALDevice> HALModel::_deviceOfStream(AudioObjectID streamID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _byStream.find(streamID);
    return found == _byStream.end() ? nullptr : found->second;
}

HALModel::Devices HALModel::_allDevices() const
{
    const std::scoped_lock lock(_mutex);
    return _devices;
}

AudioObjectID HALModel::_defaultDevice(HALDefault which) const
{
    const std::scoped_lock lock(_mutex);
    return _defaults[static_cast<size_t>(which)];
}

// ---- Reading

HALStatus HALModel::propertySize(AudioObjectID objectID, const Address& address,
                                 std::span<const std::byte> /*qualifier*/, uint32_t& size)
{
    HALPropertyWriter counter;
    const HALStatus status = _read(objectID, address, counter);
    if (status == kAudioHardwareNoError)
        size = counter.size();
    return status;
}

HALStatus HALModel::readProperty(AudioObjectID objectID, const Address& address,
                                 std::span<const std::byte> /*qualifier*/, std::span<std::byte> out,
                                 uint32_t& size)
{
    HALPropertyWriter writer(out);
    const HALStatus status = _read(objectID, address, writer);
    if (status != kAudioHardwareNoError)
        return status;
    if (!writer.fits())
        return kAudioHardwareBadPropertySizeError;
    size = writer.size();
    return kAudioHardwareNoError;
}

HALStatus HALModel::_read(AudioObjectID objectID, const Address& address, HALPropertyWriter& writer)
{
    if (const HALIOProcTable* table = HALIOProcTable::onIOThreadOf(objectID)) {
        if (address.selector == kAudioDevicePropertyNominalSampleRate)
            return writer.put(table->nominalSampleRate()), kAudioHardwareNoError;
        if (address.selector == kAudioDevicePropertyBufferFrameSize)
            return writer.put(table->bufferFrameSize()), kAudioHardwareNoError;
    }
    if (objectID == kAudioObjectSystemObject) {
        _driver->waitUntilEnumerated();
        return _readSystem(address, writer);
    }
    if (const CXRef<HALDevice> device = _device(objectID))
        return _readDevice(*device, address, writer);
    if (const CXRef<HALDevice> device = _deviceOfStream(objectID))
        return device->readStreamProperty(objectID, address, writer);
    return kAudioHardwareBadObjectError;
}

HALStatus HALModel::_readDevice(const HALDevice& device, const Address& address,
                                HALPropertyWriter& writer) const
{
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    if (address.selector == kAudioDevicePropertyIOProcStreamUsage && direction &&
        address.element == kAudioObjectPropertyElementMain)
        return halReadStreamUsage(*device.table(), *direction, device.state()[*direction].streams.size(),
                                  writer);
    if (address == globalAddress(kAudioAggregateDevicePropertySubDeviceStatus)) {
        const HALDeviceState state = device.state();
        if (!state.aggregate)
            return kAudioHardwareUnknownPropertyError;
        for (const AudioAggregateSubDeviceStatus& each : state.aggregate->subDeviceStatus())
            writer.put(each);
        return kAudioHardwareNoError;
    }
    return device.readProperty(address, writer);
}

HALStatus HALModel::_readSystem(const Address& address, HALPropertyWriter& writer) const
{
    if (address.scope != kAudioObjectPropertyScopeGlobal ||
        address.element != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    if (const std::optional<HALDefault> which = defaultOfSelector(address.selector)) {
        writer.put(_defaultDevice(*which));
        return kAudioHardwareNoError;
    }
    switch (address.selector) {
    case kAudioHardwarePropertyDevices:
    case kAudioObjectPropertyOwnedObjects:
        for (const auto& [deviceID, device] : _allDevices())
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
        return _readSystemTranslation(address.selector, writer);
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

HALStatus HALModel::_readSystemTranslation(uint32_t selector, HALPropertyWriter& writer) const
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
        if (const CXRef<HALDevice> device = _deviceWithUID(uid->string());
            device && selector == kAudioHardwarePropertyDeviceForUID)
            found = device->objectID();
        std::memcpy(translation.outputData, &found, sizeof found);
    }
    writer.put(translation);
    return kAudioHardwareNoError;
}

// ---- Writing

HALStatus HALModel::writeProperty(AudioObjectID objectID, const Address& address,
                                  std::span<const std::byte> /*qualifier*/, std::span<const std::byte> value)
{
    if (objectID == kAudioObjectSystemObject)
        return _writeSystem(address, value);
    if (const CXRef<HALDevice> device = _device(objectID))
        return halWriteDevice(*device, address, value, deadlineFromNow());
    if (const CXRef<HALDevice> device = _deviceOfStream(objectID))
        return halWriteStream(*device, objectID, address, value, deadlineFromNow());
    return kAudioHardwareBadObjectError;
}

HALStatus HALModel::_writeSystem(const Address& address, std::span<const std::byte> value)
{
    HALPropertyWriter counter;
    if (const HALStatus status = _readSystem(address, counter))
        return status;
    const std::optional<HALDefault> which = defaultOfSelector(address.selector);
    if (!which)
        return kAudioHardwareIllegalOperationError;
    AudioObjectID deviceID = kAudioObjectUnknown;
    if (const HALStatus status = halTakeValue(value, deviceID))
        return status;
    const CXRef<HALDevice> device = _device(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    const HALDeviceState state = device->state();
    const HALDirectionState& side =
        state[*which == HALDefault::Input ? HALDirection::Input : HALDirection::Output];
    if (side.streams.empty() || !side.canBeDefault)
        return kAudioHardwareIllegalOperationError;
    return _driver->chooseDefaultDevice(*which, device->driver(), deadlineFromNow());
}

// ---- Listeners

HALStatus HALModel::addListener(AudioObjectID objectID, const Address& address, const HALListener& listener)
{
    if (objectID != kAudioObjectSystemObject && !_device(objectID) && !_deviceOfStream(objectID))
        return kAudioHardwareBadObjectError;
    return _notifier->addListener(objectID, address, listener);
}

HALStatus HALModel::removeListener(AudioObjectID objectID, const Address& address,
                                   const HALListener& listener)
{
    return _notifier->removeListener(objectID, address, listener);
}

// ---- IO

HALStatus HALModel::createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                                 AudioDeviceIOProcID& procID)
{
    // Now, where an error can be returned if no thread can be created: a cycle that stops or ends its
    // callback hands the rest to this queue, and must not fail.
    dxr::GlobalQueue::highPriority().prepare();
    const CXRef<HALDevice> device = _device(deviceID);
    return device ? device->createIOProc(block, procID) : kAudioHardwareBadDeviceError;
}

HALStatus HALModel::start(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable::onIOThreadOf(deviceID))
        return kAudioHardwareIllegalOperationError;
    const CXRef<HALDevice> device = _device(deviceID);
    return device ? device->start(procID, deadlineFromNow(maxWaitForStart)) : kAudioHardwareBadDeviceError;
}

HALStatus HALModel::stop(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable* table = HALIOProcTable::onIOThreadOf(deviceID)) {
        const bool wasStarted = table->stop(procID);
        _stopIfIdleLater(deviceID);
        return wasStarted ? kAudioHardwareNoError : kAudioHardwareNotRunningError;
    }
    const CXRef<HALDevice> device = _device(deviceID);
    return device ? device->stop(procID) : kAudioHardwareBadDeviceError;
}

HALStatus HALModel::destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    if (HALIOProcTable* table = HALIOProcTable::onIOThreadOf(deviceID)) {
        const bool wasThere = table->destroy(procID);
        _stopIfIdleLater(deviceID);
        return wasThere ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
    }
    const CXRef<HALDevice> device = _device(deviceID);
    return device ? device->destroyIOProc(procID) : kAudioHardwareBadDeviceError;
}

void HALModel::_stopIfIdleLater(AudioObjectID deviceID)
{
    const CXRealtimeExemption exemption("a callback that stops its device hands the rest to another thread");
    dxr::GlobalQueue::highPriority().async([self = CXRef(this), deviceID] {
        if (const CXRef<HALDevice> device = self->_device(deviceID))
            device->stopIfIdle();
    });
}

// ---- Aggregates

HALStatus HALModel::createAggregateDevice(const CXValue& description, AudioObjectID& deviceID)
{
    std::optional<AggregateDescription> valid = AggregateDescription::of(description.plist());
    if (!valid)
        return kAudioHardwareIllegalOperationError;
    _driver->waitUntilEnumerated();
    const std::scoped_lock creation(_creationMutex);
    if (_deviceWithUID(valid->uid))
        return kAudioHardwareIllegalOperationError;
    CXRef<dxr::SerialQueue> queue = _aggregates->prepare();
    const auto aggregate = AggregateDevice::initWithDescription(
        std::move(*valid), *this, [this](const std::string& uid) { return _deviceWithUID(uid); },
        std::move(queue));
    deviceID = deviceAdded(aggregate, aggregate->look());
    if (deviceID == kAudioObjectUnknown) // the hardware has added a device of that UID meanwhile
        return kAudioHardwareIllegalOperationError;
    _aggregates->add(deviceID, aggregate);
    _aggregates->devicesChanged(); // for changes since look()
    return kAudioHardwareNoError;
}

HALStatus HALModel::destroyAggregateDevice(AudioObjectID deviceID)
{
    if (HALIOProcTable::onIOThreadOf(deviceID))
        return kAudioHardwareIllegalOperationError;
    const CXRef<AggregateDevice> aggregate = _aggregates->remove(deviceID);
    if (!aggregate)
        return _device(deviceID) ? kAudioHardwareIllegalOperationError : kAudioHardwareBadDeviceError;
    deviceRemoved(*aggregate);
    aggregate->end();
    return kAudioHardwareNoError;
}
