#include "SimulatedHardware.h"

#include "HostClock.h"
#include "LogSink.h"
#include "RealtimeScheduling.h"
#include "Utf8.h"

#include <algorithm>
#include <chrono>

/// Runs a device's cycles when they fall due, on a thread that keeps it alive until stop().
class SimulatedHardware::Runner final : public CXObject {
public:
    static CXRef<Runner> initWithDevice(CXRef<SimulatedDevice> device)
    {
        auto runner = CXRef<Runner>::adopt(new Runner(std::move(device)));
        runner->_thread = platform::Thread("dxr-io", [runner] { runner->_run(); });
        return runner;
    }

    /// No cycle begins after it has returned; on the IO thread itself, the current one is the last.
    void stop()
    {
        {
            const std::scoped_lock lock(_mutex);
            _stopped = true;
        }
        _wake.notify_one();
        _thread.join();
    }

private:
    explicit Runner(CXRef<SimulatedDevice> device) : _device(std::move(device)) {}

    void _run()
    {
        if (platform::makeCurrentThreadRealtime().grant == platform::RealtimeGrant::None)
            platform::LogSink::log(
                "No real-time scheduling for a simulated device: its cycles may come late");
        while (_waitUntilDue()) {
            const uint64_t now = platform::HostClock::nowTicks();
            const uint64_t late = now - std::min(now, _device->nextCycleTicks());
            if (const uint64_t lost = late / _device->cycleTicks())
                _device->loseCycles(lost);
            _device->runCycle();
        }
    }

    /// False when it is time to stop instead.
    bool _waitUntilDue()
    {
        const std::chrono::steady_clock::time_point due{std::chrono::nanoseconds(_device->nextCycleTicks())};
        std::unique_lock lock(_mutex);
        return !_wake.wait_until(lock, due, [this] { return _stopped; });
    }

    const CXRef<SimulatedDevice> _device;
    std::mutex _mutex;
    std::condition_variable _wake;
    bool _stopped = false;
    platform::Thread _thread;
};

CXRef<SimulatedHardware> SimulatedHardware::initWithClock(SimulatedClock clock)
{
    return CXRef<SimulatedHardware>::adopt(new SimulatedHardware(clock));
}

SimulatedHardware::SimulatedHardware(SimulatedClock clock) : _clock(clock) {}

SimulatedHardware::~SimulatedHardware() = default;

void SimulatedHardware::shutDown()
{
    for (const AudioObjectID deviceID : deviceIDs()) {
        if (const std::optional<HALDeviceState> state = deviceState(deviceID))
            unplug(state->uid);
    }
    stopNotifying();
}

// ---- Hands on the hardware

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

} // namespace

AudioObjectID SimulatedHardware::plug(const SimulatedDeviceBuilder& device)
{
    const std::scoped_lock script(_scriptMutex);
    SimulatedDeviceDescription description = device.description();
    if (deviceWithUID(description.state.uid) != kAudioObjectUnknown)
        return kAudioObjectUnknown;
    makeValid(description.state);
    const AudioObjectID deviceID = addDevice(description.state, [&](AudioObjectID newID) {
        const std::scoped_lock lock(_mutex);
        _plugged.emplace(newID, Plugged{SimulatedDevice::initWithDescription(description), nullptr, false});
    });
    _electDefaults(allDefaults, std::span(&deviceID, 1));
    return deviceID;
}

bool SimulatedHardware::unplug(const std::string& uid)
{
    const std::scoped_lock script(_scriptMutex);
    const AudioObjectID deviceID = deviceWithUID(uid);
    if (deviceID == kAudioObjectUnknown)
        return false;
    Plugged gone;
    {
        const std::scoped_lock lock(_mutex);
        auto plugged = _plugged.extract(deviceID);
        if (!plugged) // an aggregate: not for hands
            return false;
        gone = std::move(plugged.mapped());
    }
    std::vector<HALDefault> vacated;
    std::ranges::copy_if(allDefaults, std::back_inserter(vacated),
                         [&](HALDefault which) { return defaultDevice(which) == deviceID; });
    _end(std::move(gone));
    removeDevice(deviceID);
    if (!vacated.empty())
        _electDefaults(vacated, deviceIDs());
    return true;
}

bool SimulatedHardware::reconfigure(const std::string& uid,
                                    const CXBlock<void(SimulatedDeviceBuilder&)>& change)
{
    const AudioObjectID deviceID = deviceWithUID(uid);
    return _alter(deviceID, [&](SimulatedDeviceDescription& description) {
               SimulatedDeviceBuilder builder(description);
               change(builder);
               description = builder.description();
               description.state.uid = uid;
               makeValid(description.state);
           }) == kAudioHardwareNoError;
}

bool SimulatedHardware::setDefault(std::initializer_list<HALDefault> which, const std::string& uid)
{
    const AudioObjectID deviceID = deviceWithUID(uid);
    if (deviceID == kAudioObjectUnknown && !uid.empty())
        return false;
    for (const HALDefault each : which)
        setDefaultDevice(each, deviceID);
    return true;
}

bool SimulatedHardware::loseCycles(const std::string& uid, uint32_t count)
{
    const CXRef<SimulatedDevice> device = _hardwareOf(deviceWithUID(uid));
    if (device)
        device->loseCycles(count);
    return bool(device);
}

CXRef<SimulatedDevice> SimulatedHardware::_hardwareOf(AudioObjectID deviceID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _plugged.find(deviceID);
    return found == _plugged.end() ? nullptr : found->second.device;
}

HALStatus SimulatedHardware::_alter(AudioObjectID deviceID,
                                    const std::function<void(SimulatedDeviceDescription&)>& change)
{
    const std::scoped_lock script(_scriptMutex);
    const CXRef<SimulatedDevice> device = _hardwareOf(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    const SimulatedDeviceDescription after = device->alter(change);
    updateDevice(deviceID, [&](HALDeviceState& state) { state = after.state; });
    return kAudioHardwareNoError;
}

void SimulatedHardware::_end(Plugged plugged)
{
    plugged.device->end();
    if (plugged.runner)
        plugged.runner->stop();
    std::unique_lock lock(_mutex);
    _cycleEnded.wait(lock, [&] {
        return _inCycle != plugged.device.get() || _steppingThread == std::this_thread::get_id();
    });
}

void SimulatedHardware::_electDefaults(std::span<const HALDefault> vacant,
                                       std::span<const AudioObjectID> candidates)
{
    for (const HALDefault which : vacant) {
        const HALDirection direction =
            which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
        for (const AudioObjectID deviceID : candidates) {
            if (defaultDevice(which) != kAudioObjectUnknown)
                break;
            const std::optional<HALDeviceState> state = deviceState(deviceID);
            if (state && !state->isHidden && (*state)[direction].canBeDefault &&
                !(*state)[direction].streams.empty())
                setDefaultDevice(which, deviceID);
        }
    }
}

// ---- What clients of the HAL ask for

HALStatus SimulatedHardware::setNominalSampleRate(AudioObjectID deviceID, double rate)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    return _alter(deviceID,
                  [rate](SimulatedDeviceDescription& each) { each.state.nominalSampleRate = rate; });
}

HALStatus SimulatedHardware::setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    return _alter(deviceID,
                  [=](SimulatedDeviceDescription& each) { each.state.bufferFrameSize = frameCount; });
}

HALStatus SimulatedHardware::setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                                       float scalar)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    return _alter(deviceID, [=](SimulatedDeviceDescription& each) {
        HALDirectionState& state = each.state[direction];
        if (element == 0)
            state.mainVolume = scalar;
        else if (element <= state.channelVolumes.size())
            state.channelVolumes[element - 1] = scalar;
    });
}

HALStatus SimulatedHardware::setMuted(AudioObjectID deviceID, HALDirection direction, bool muted)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    return _alter(deviceID, [=](SimulatedDeviceDescription& each) { each.state[direction].muted = muted; });
}

HALStatus SimulatedHardware::setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    return _alter(deviceID,
                  [=](SimulatedDeviceDescription& each) { each.state[direction].dataSourceID = sourceID; });
}

HALStatus SimulatedHardware::chooseDefaultDevice(HALDefault which, AudioObjectID deviceID)
{
    if (const HALStatus status = _faults.statusOfWrite())
        return status;
    setDefaultDevice(which, deviceID);
    return kAudioHardwareNoError;
}

HALStatus SimulatedHardware::interceptRead(AudioObjectID /*objectID*/, const Address& address, bool isSize)
{
    return _faults.statusOfRead(address.selector, isSize);
}

// ---- IO

HALStatus SimulatedHardware::startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table)
{
    if (const HALStatus status = _faults.statusOfStart())
        return status;
    const CXRef<SimulatedDevice> device = _hardwareOf(deviceID);
    if (!device)
        return kAudioHardwareBadDeviceError;
    if (device->cycleTicks() == 0) // no frames, or no rate: such a device cannot run
        return kAudioHardwareUnspecifiedError;
    device->begin(table, nowTicks());
    const CXRef<Runner> runner =
        _clock == SimulatedClock::RealTime ? Runner::initWithDevice(device) : nullptr;
    {
        const std::scoped_lock lock(_mutex);
        if (const auto found = _plugged.find(deviceID); found != _plugged.end()) {
            found->second.runner = runner;
            found->second.isRunning = true;
            return kAudioHardwareNoError;
        }
    }
    _end({device, runner, false}); // unplugged meanwhile
    return kAudioHardwareBadDeviceError;
}

void SimulatedHardware::stopIO(AudioObjectID deviceID)
{
    Plugged stopped;
    {
        const std::scoped_lock lock(_mutex);
        const auto found = _plugged.find(deviceID);
        if (found == _plugged.end())
            return;
        stopped = {found->second.device, std::move(found->second.runner), false};
        found->second.isRunning = false;
    }
    _end(std::move(stopped));
}

// ---- The stepped clock

uint64_t SimulatedHardware::nowTicks() const
{
    if (_clock == SimulatedClock::RealTime)
        return platform::HostClock::nowTicks();
    const std::scoped_lock lock(_mutex);
    return _nowTicks;
}

void SimulatedHardware::advance(uint64_t nanoseconds)
{
    if (_clock != SimulatedClock::Stepped)
        return;
    const uint64_t until = nowTicks() + nanoseconds;
    while (_runNextCycle(until)) {
    }
    const std::scoped_lock lock(_mutex);
    _nowTicks = std::max(_nowTicks, until);
}

void SimulatedHardware::stepCycles(uint32_t count)
{
    if (_clock != SimulatedClock::Stepped)
        return;
    std::map<CXRef<SimulatedDevice>, uint64_t> goals;
    for (const CXRef<SimulatedDevice>& device : _runningDevices())
        goals.emplace(device, device->cycleCount() + count);
    const auto isMissed = [&](const CXRef<SimulatedDevice>& running) {
        const auto goal = goals.find(running);
        return goal != goals.end() && running->cycleCount() < goal->second;
    };
    // A device that stops meanwhile has no goal any more.
    while (std::ranges::any_of(_runningDevices(), isMissed) && _runNextCycle(UINT64_MAX)) {
    }
}

std::vector<CXRef<SimulatedDevice>> SimulatedHardware::_runningDevices() const
{
    std::vector<CXRef<SimulatedDevice>> running;
    const std::scoped_lock lock(_mutex);
    for (const auto& [deviceID, plugged] : _plugged) {
        if (plugged.isRunning)
            running.push_back(plugged.device);
    }
    return running;
}

bool SimulatedHardware::_runNextCycle(uint64_t untilTicks)
{
    CXRef<SimulatedDevice> next;
    uint64_t due = untilTicks;
    for (const CXRef<SimulatedDevice>& device : _runningDevices()) {
        const uint64_t ticks = device->nextCycleTicks();
        if (ticks <= due && (!next || ticks < due)) {
            due = ticks;
            next = device;
        }
    }
    if (!next)
        return false;
    {
        const std::scoped_lock lock(_mutex);
        _nowTicks = std::max(_nowTicks, due);
        _inCycle = next.get();
        _steppingThread = std::this_thread::get_id();
    }
    next->runCycle();
    {
        const std::scoped_lock lock(_mutex);
        _inCycle = nullptr;
        _steppingThread = {};
    }
    _cycleEnded.notify_all();
    return true;
}
