#include "SimulatedHardware.h"

#include "HALReadInterception.h"
#include "SimulatedDevice.h"
#include "SimulatedMachine.h"
#include "Utf8.h"

#include <algorithm>

namespace {

constexpr std::array allDefaults{HALDefault::Input, HALDefault::Output, HALDefault::SystemOutput};

void makeValid(HALDeviceState& state)
{
    state.name = platform::utf8Replaced(state.name);
    for (std::optional<std::string>* text : {&state.manufacturer, &state.modelUID}) {
        if (*text)
            *text = platform::utf8Replaced(**text);
    }
    for (HALDirectionState& direction : state.directions) {
        for (HALDataSourceState& source : direction.dataSources)
            source.name = platform::utf8Replaced(source.name);
    }
}

bool canBeDefault(const HALDeviceState& state, HALDefault which)
{
    const HALDirectionState& side =
        state[which == HALDefault::Input ? HALDirection::Input : HALDirection::Output];
    return !state.isHidden && side.canBeDefault && !side.streams.empty();
}

// ---- Under the script mutex

void setDefault(SimulatedMachine& machine, HALDefault which, const CXRef<SimulatedDevice>& device)
{
    {
        const std::scoped_lock lock(machine.devicesMutex);
        machine.defaults[static_cast<size_t>(which)] = device;
    }
    if (machine.sink)
        machine.sink->defaultChanged(which, device.get());
}

/// Gives each vacant default to the first device that can be it.
void electDefaults(SimulatedMachine& machine)
{
    for (const HALDefault which : allDefaults) {
        CXRef<SimulatedDevice> elected;
        {
            const std::scoped_lock lock(machine.devicesMutex);
            if (machine.defaults[static_cast<size_t>(which)])
                continue;
            const auto found = std::ranges::find_if(machine.devices, [&](const CXRef<SimulatedDevice>& each) {
                return canBeDefault(each->state(), which);
            });
            if (found != machine.devices.end())
                elected = *found;
        }
        if (elected)
            setDefault(machine, which, elected);
    }
}

void report(SimulatedMachine& machine, const CXRef<SimulatedDevice>& device)
{
    if (machine.sink)
        device->setObjectID(machine.sink->deviceAdded(device, device->state()));
}

} // namespace

CXRef<SimulatedHardware> SimulatedHardware::init(SimulatedClock clock)
{
    return CXRef<SimulatedHardware>::adopt(new SimulatedHardware(clock));
}

SimulatedHardware::SimulatedHardware(SimulatedClock clock)
    : _machine(SimulatedMachine::init(clock == SimulatedClock::Stepped))
{}

SimulatedHardware::~SimulatedHardware() = default;

void SimulatedHardware::start(HALDriverSink& sink)
{
    const std::scoped_lock script(_machine->scriptMutex);
    _machine->sink = &sink;
    std::vector<CXRef<SimulatedDevice>> devices;
    {
        const std::scoped_lock lock(_machine->devicesMutex);
        devices = _machine->devices;
    }
    for (const CXRef<SimulatedDevice>& device : devices)
        report(*_machine, device);
    for (const HALDefault which : allDefaults)
        ::setDefault(*_machine, which, _machine->defaults[static_cast<size_t>(which)]);
}

void SimulatedHardware::stop()
{
    std::vector<CXRef<SimulatedDevice>> devices;
    {
        const std::scoped_lock lock(_machine->devicesMutex);
        devices = _machine->devices;
    }
    for (const CXRef<SimulatedDevice>& device : devices)
        unplug(device->uid());
    const std::scoped_lock script(_machine->scriptMutex);
    _machine->sink = nullptr;
}

// ---- Plugging

AudioObjectID SimulatedHardware::plug(const SimulatedDeviceBuilder& builder)
{
    const std::scoped_lock script(_machine->scriptMutex);
    SimulatedDeviceDescription description = builder.description();
    if (_device(description.state.uid))
        return kAudioObjectUnknown;
    makeValid(description.state);
    const CXRef<SimulatedDevice> device =
        SimulatedDevice::initWithDescription(std::move(description), _machine);
    report(*_machine, device);
    if (_machine->sink && device->objectID() == kAudioObjectUnknown) // an aggregate has that UID
        return kAudioObjectUnknown;
    {
        const std::scoped_lock lock(_machine->devicesMutex);
        _machine->devices.push_back(device);
    }
    electDefaults(*_machine);
    return device->objectID();
}

bool SimulatedHardware::unplug(const std::string& uid)
{
    const CXRef<SimulatedDevice> device = _device(uid);
    if (!device || !device->unplug()) // not under the script mutex, which a callback that ends may want
        return false;
    const std::scoped_lock script(_machine->scriptMutex);
    {
        const std::scoped_lock lock(_machine->devicesMutex);
        std::erase(_machine->devices, device);
        for (CXRef<SimulatedDevice>& each : _machine->defaults)
            if (each == device)
                each = nullptr;
    }
    if (_machine->sink)
        _machine->sink->deviceRemoved(*device);
    electDefaults(*_machine);
    return true;
}

bool SimulatedHardware::reconfigure(const std::string& uid,
                                    const CXBlock<void(SimulatedDeviceBuilder&)>& change)
{
    const CXRef<SimulatedDevice> device = _device(uid);
    return change && device && device->alter([&](SimulatedDeviceDescription& description) {
        SimulatedDeviceBuilder builder(description);
        change(builder);
        description = builder.description();
        description.state.uid = uid;
        makeValid(description.state);
    }) == kAudioHardwareNoError;
}

bool SimulatedHardware::setDefault(HALDirection direction, const std::string& uid)
{
    if (direction == HALDirection::Input)
        return _setDefaults({HALDefault::Input}, uid);
    return _setDefaults({HALDefault::Output, HALDefault::SystemOutput}, uid);
}

bool SimulatedHardware::setDefaultSystemOutput(const std::string& uid)
{
    return _setDefaults({HALDefault::SystemOutput}, uid);
}

bool SimulatedHardware::_setDefaults(std::initializer_list<HALDefault> which, const std::string& uid)
{
    const std::scoped_lock script(_machine->scriptMutex);
    const CXRef<SimulatedDevice> device = _device(uid);
    if (!device && !uid.empty())
        return false;
    for (const HALDefault each : which)
        ::setDefault(*_machine, each, device);
    return true;
}

HALStatus SimulatedHardware::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device,
                                                 HALDeadline /*deadline*/)
{
    if (const HALStatus status = _machine->faults.statusOfWrite())
        return status;
    const auto* simulated = dynamic_cast<SimulatedDevice*>(&device);
    if (!simulated)
        return kAudioHardwareIllegalOperationError;
    return _setDefaults({which}, simulated->uid()) ? kAudioHardwareNoError : kAudioHardwareBadDeviceError;
}

AudioObjectID SimulatedHardware::deviceID(const std::string& uid) const
{
    const CXRef<SimulatedDevice> device = _device(uid);
    return device ? device->objectID() : kAudioObjectUnknown;
}

CXRef<SimulatedDevice> SimulatedHardware::_device(const std::string& uid) const
{
    const std::scoped_lock lock(_machine->devicesMutex);
    const auto found =
        std::ranges::find(_machine->devices, uid, [](const auto& each) { return each->uid(); });
    return found == _machine->devices.end() ? nullptr : *found;
}

// ---- Faults

void SimulatedHardware::failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status)
{
    _machine->faults.failReads(selector, nth, count, status);
    _interceptReads();
}

void SimulatedHardware::beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script)
{
    _machine->faults.beforeRead(selector, nth, std::move(script));
    _interceptReads();
}

void SimulatedHardware::_interceptReads()
{
    halInterceptReads(
        [machine = _machine](AudioObjectID, const AudioObjectPropertyAddress& address, bool isSize) {
            return machine->faults.statusOfRead(address.selector, isSize);
        });
}

void SimulatedHardware::failWrites(HALStatus status)
{
    _machine->faults.failWrites(status);
}

void SimulatedHardware::failStarts(HALStatus status)
{
    _machine->faults.failStarts(status);
}

bool SimulatedHardware::loseCycles(const std::string& uid, uint32_t count)
{
    const CXRef<SimulatedDevice> device = _device(uid);
    return device && device->loseCycles(count);
}

// ---- Time

void SimulatedHardware::advance(uint64_t nanoseconds)
{
    _machine->scheduler.advance(nanoseconds);
}

void SimulatedHardware::stepCycles(uint32_t count)
{
    _machine->scheduler.stepCycles(count);
}

uint64_t SimulatedHardware::nowTicks() const
{
    return _machine->scheduler.nowTicks();
}

void SimulatedHardware::settle()
{
    HALDriverSink* sink = nullptr;
    {
        const std::scoped_lock script(_machine->scriptMutex);
        sink = _machine->sink;
    }
    if (sink)
        sink->settle();
}
