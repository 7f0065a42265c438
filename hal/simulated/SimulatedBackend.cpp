#include "SimulatedBackend.h"

#include "SimulatedHardware.h"

// Everything is done by SimulatedHardware, whose base is not for clients' eyes.

CXRef<SimulatedBackend> SimulatedBackend::init(SimulatedClock clock)
{
    return CXRef<SimulatedBackend>::adopt(new SimulatedBackend(SimulatedHardware::initWithClock(clock)));
}

SimulatedBackend::SimulatedBackend(CXRef<SimulatedHardware> hardware) : _hardware(std::move(hardware)) {}

SimulatedBackend::~SimulatedBackend()
{
    _hardware->shutDown();
}

AudioObjectID SimulatedBackend::plug(const SimulatedDeviceBuilder& device)
{
    return _hardware->plug(device);
}

bool SimulatedBackend::unplug(const std::string& uid)
{
    return _hardware->unplug(uid);
}

bool SimulatedBackend::reconfigure(const std::string& uid,
                                   const CXBlock<void(SimulatedDeviceBuilder&)>& change)
{
    return change && _hardware->reconfigure(uid, change);
}

bool SimulatedBackend::setDefault(HALDirection direction, const std::string& uid)
{
    if (direction == HALDirection::Input)
        return _hardware->setDefault({HALDefault::Input}, uid);
    return _hardware->setDefault({HALDefault::Output, HALDefault::SystemOutput}, uid);
}

bool SimulatedBackend::setDefaultSystemOutput(const std::string& uid)
{
    return _hardware->setDefault({HALDefault::SystemOutput}, uid);
}

AudioObjectID SimulatedBackend::deviceID(const std::string& uid) const
{
    return _hardware->deviceID(uid);
}

void SimulatedBackend::failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status)
{
    _hardware->faults().failReads(selector, nth, count, status);
}

void SimulatedBackend::beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script)
{
    _hardware->faults().beforeRead(selector, nth, std::move(script));
}

void SimulatedBackend::failWrites(HALStatus status)
{
    _hardware->faults().failWrites(status);
}

void SimulatedBackend::failStarts(HALStatus status)
{
    _hardware->faults().failStarts(status);
}

bool SimulatedBackend::loseCycles(const std::string& uid, uint32_t count)
{
    return _hardware->loseCycles(uid, count);
}

void SimulatedBackend::advance(uint64_t nanoseconds)
{
    _hardware->advance(nanoseconds);
}

void SimulatedBackend::stepCycles(uint32_t count)
{
    _hardware->stepCycles(count);
}

uint64_t SimulatedBackend::nowTicks() const
{
    return _hardware->nowTicks();
}

void SimulatedBackend::settle()
{
    _hardware->settle();
}

HALStatus SimulatedBackend::propertySize(AudioObjectID objectID, const Address& address,
                                         std::span<const std::byte> qualifier, uint32_t& size)
{
    return _hardware->propertySize(objectID, address, qualifier, size);
}

HALStatus SimulatedBackend::readProperty(AudioObjectID objectID, const Address& address,
                                         std::span<const std::byte> qualifier, std::span<std::byte> out,
                                         uint32_t& size)
{
    return _hardware->readProperty(objectID, address, qualifier, out, size);
}

HALStatus SimulatedBackend::writeProperty(AudioObjectID objectID, const Address& address,
                                          std::span<const std::byte> qualifier,
                                          std::span<const std::byte> value)
{
    return _hardware->writeProperty(objectID, address, qualifier, value);
}

HALStatus SimulatedBackend::addListener(AudioObjectID objectID, const Address& address,
                                        const HALListener& listener)
{
    return _hardware->addListener(objectID, address, listener);
}

HALStatus SimulatedBackend::removeListener(AudioObjectID objectID, const Address& address,
                                           const HALListener& listener)
{
    return _hardware->removeListener(objectID, address, listener);
}

HALStatus SimulatedBackend::createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                                         AudioDeviceIOProcID& procID)
{
    return _hardware->createIOProc(deviceID, block, procID);
}

HALStatus SimulatedBackend::destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return _hardware->destroyIOProc(deviceID, procID);
}

HALStatus SimulatedBackend::start(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return _hardware->start(deviceID, procID);
}

HALStatus SimulatedBackend::stop(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return _hardware->stop(deviceID, procID);
}

HALStatus SimulatedBackend::createAggregateDevice(const CXValue& description, AudioObjectID& deviceID)
{
    return _hardware->createAggregateDevice(description, deviceID);
}

HALStatus SimulatedBackend::destroyAggregateDevice(AudioObjectID deviceID)
{
    return _hardware->destroyAggregateDevice(deviceID);
}
