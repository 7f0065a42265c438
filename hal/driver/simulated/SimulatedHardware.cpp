#include "SimulatedHardware.h"

#include "HALReadInterception.h"
#include "SimulatedDevice.h"
#include "Utf8.h"

#include <algorithm>

namespace {

constexpr std::array allDefaults{HALDefault::Input, HALDefault::Output, HALDefault::SystemOutput};

void makeValid(HALDeviceState& state)
{
    state.name = dxr::utf8Replaced(state.name);
    for (std::optional<std::string>* text : {&state.manufacturer, &state.modelUID}) {
        if (*text)
            *text = dxr::utf8Replaced(**text);
    }
    for (HALDirectionState& direction : state.directions) {
        for (HALDataSourceState& source : direction.dataSources)
            source.name = dxr::utf8Replaced(source.name);
        for (std::string& name : direction.channelNames)
            name = dxr::utf8Replaced(name);
    }
}

bool canBeDefault(const HALDeviceState& state, HALDefault which)
{
    const HALDirectionState& side =
        state[which == HALDefault::Input ? HALDirection::Input : HALDirection::Output];
    return !state.isHidden && side.canBeDefault && !side.streams.empty();
}

} // namespace

/// The devices that are plugged in.
class SimulatedPlugged {
public:
    explicit SimulatedPlugged(SimulatedMachine& machine) : _machine(machine) {}

    // Called with the script mutex locked:
    void setDefault(HALDefault which, const CXRef<SimulatedDevice>& device);
    /// For each default without a device, chooses the first device that can be it.
    void electDefaults();
    void report(const CXRef<SimulatedDevice>& device);

    std::mutex mutex;                               // guards the rest; held for look-ups only
    std::vector<CXRef<SimulatedDevice>> devices;    // in the order of plugging
    std::array<CXRef<SimulatedDevice>, 3> defaults; // by HALDefault

private:
    SimulatedMachine& _machine;
};

void SimulatedPlugged::setDefault(HALDefault which, const CXRef<SimulatedDevice>& device)
{
    {
        const std::scoped_lock lock(mutex);
        defaults[static_cast<size_t>(which)] = device;
    }
    if (_machine.sink)
        _machine.sink->defaultChanged(which, device.get());
}

void SimulatedPlugged::electDefaults()
{
    for (const HALDefault which : allDefaults) {
        CXRef<SimulatedDevice> elected;
        {
            const std::scoped_lock lock(mutex);
            if (defaults[static_cast<size_t>(which)])
                continue;
            const auto found = std::ranges::find_if(devices, [&](const CXRef<SimulatedDevice>& each) {
                return canBeDefault(each->state(), which);
            });
            if (found != devices.end())
                elected = *found;
        }
        if (elected)
            setDefault(which, elected);
    }
}

void SimulatedPlugged::report(const CXRef<SimulatedDevice>& device)
{
    if (_machine.sink)
        device->setObjectID(_machine.sink->deviceAdded(device, device->state()));
}

CXRef<SimulatedHardware> SimulatedHardware::init(SimulatedClock clock)
{
    return CXRef<SimulatedHardware>::adopt(new SimulatedHardware(clock));
}

SimulatedHardware::SimulatedHardware(SimulatedClock clock)
    : _machine(SimulatedMachine::init(clock == SimulatedClock::Stepped)),
      _plugged(std::make_unique<SimulatedPlugged>(*_machine))
{}

SimulatedHardware::~SimulatedHardware() = default;

void SimulatedHardware::start(HALDriverSink& sink)
{
    const std::scoped_lock script(_machine->scriptMutex);
    _machine->sink = &sink;
    std::vector<CXRef<SimulatedDevice>> devices;
    {
        const std::scoped_lock lock(_plugged->mutex);
        devices = _plugged->devices;
    }
    for (const CXRef<SimulatedDevice>& device : devices)
        _plugged->report(device);
    for (const HALDefault which : allDefaults)
        _plugged->setDefault(which, _plugged->defaults[static_cast<size_t>(which)]);
}

void SimulatedHardware::stop()
{
    std::vector<CXRef<SimulatedDevice>> devices;
    {
        const std::scoped_lock lock(_plugged->mutex);
        devices = _plugged->devices;
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
    _plugged->report(device);
    if (_machine->sink && device->objectID() == kAudioObjectUnknown) // an aggregate has that UID
        return kAudioObjectUnknown;
    {
        const std::scoped_lock lock(_plugged->mutex);
        _plugged->devices.push_back(device);
    }
    _plugged->electDefaults();
    return device->objectID();
}

bool SimulatedHardware::unplug(const std::string& uid)
{
    const CXRef<SimulatedDevice> device = _device(uid);
    if (!device || !device->unplug()) // not under the script mutex, which a running callback may lock
        return false;
    const std::scoped_lock script(_machine->scriptMutex);
    {
        const std::scoped_lock lock(_plugged->mutex);
        std::erase(_plugged->devices, device);
        for (CXRef<SimulatedDevice>& each : _plugged->defaults)
            if (each == device)
                each = nullptr;
    }
    if (_machine->sink)
        _machine->sink->deviceRemoved(*device);
    _plugged->electDefaults();
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
        _plugged->setDefault(each, device);
    return true;
}

HALStatus SimulatedHardware::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device,
                                                 HALDeadline /*deadline*/)
{
    if (const HALStatus status = _machine->faults.statusOfWrite(""))
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
    const std::scoped_lock lock(_plugged->mutex);
    const auto found =
        std::ranges::find(_plugged->devices, uid, [](const auto& each) { return each->uid(); });
    return found == _plugged->devices.end() ? nullptr : *found;
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
    _machine->faults.failWrites("", status);
}

void SimulatedHardware::failWritesOf(const std::string& uid, HALStatus status)
{
    _machine->faults.failWrites(uid, status);
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

bool SimulatedHardware::isOnHostClock() const
{
    return !_machine->scheduler.isStepped();
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
