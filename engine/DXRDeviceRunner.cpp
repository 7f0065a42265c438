#include "DXRDeviceRunner.h"

#include "CXErrorAdditions.h"
#include "CXFourCharCode.h"
#include "CountedContext.h"
#include "DXRAudioAggregateContext.h"
#include "DXRAudioTimerContext.h"
#include "DXRDeviceControl.h"
#include "DXRDeviceManager.h"
#include "DXRReadCheck.h"
#include "HostClock.h"
#include "LatencyOfPart.h"
#include "NumberText.h"
#include "QDL.h"
#include "RetryTimer.h"
#include "RunnerDeviceNotifiers.h"
#include "RunnerIO.h"

#include <algorithm>
#include <cstdio>
#include <limits>

namespace {

using Restart = DXRRunnerCounts::Restart;

constexpr size_t notFound = std::numeric_limits<int64_t>::max();

DXRDeviceManager& manager()
{
    return DXRDeviceManager::sharedDeviceManager();
}

} // namespace

// ---- Life

CXRef<DXRDeviceRunner> DXRDeviceRunner::init()
{
    CXRef<CXDispatchQueue> queue = CXDispatchQueue::init();
    if (!queue)
        return nullptr;
    queue->setRealTime();
    auto runner = CXRef<DXRDeviceRunner>::adopt(new DXRDeviceRunner(std::move(queue)));
    runner->_stopWork = [weak = CXWeak(*runner)] {
        if (const CXRef<DXRDeviceRunner> self = weak.lock())
            self->_stopRunning();
    };
    // Raw pointers are safe: the runner owns _io, the only caller of these blocks.
    runner->_io->onFormat = [self = runner.get()] { self->_propertiesChanged(); };
    runner->_io->onNewLayout = [self = runner.get()](const CXObject& context) {
        self->_contextLostLayout(context);
    };
    runner->_kvo->updateAllValues();
    return runner;
}

DXRDeviceRunner::DXRDeviceRunner(CXRef<CXDispatchQueue> queue)
    : _kvo(DXRKVOHelper::initWithObject(*this, _observableProperties())), _queue(queue),
      _io(std::make_unique<RunnerIO>(queue)),
      _deviceNotifiers(std::make_unique<RunnerDeviceNotifiers>(queue)),
      _countedContext(std::make_unique<CountedContext>()), _startRetry(std::make_unique<RetryTimer>(queue)),
      _defaultsRetry(std::make_unique<RetryTimer>(std::move(queue)))
{}

DXRDeviceRunner::~DXRDeviceRunner() CX_UNCHECKED_QUEUE // no other thread has a reference
{
    if (_io->trace)
        _io->trace->giveBack();
    _queue->cancel();
}

std::span<const DXRKVOProperty> DXRDeviceRunner::_observableProperties() noexcept
{
    using Runner = DXRDeviceRunner;
    static constexpr std::array properties{
        DXRKVOProperty::of<&Runner::frameCount, &Runner::_kvo_frameCount>("frameCount"),
        DXRKVOProperty::of<&Runner::sampleRate, &Runner::_kvo_sampleRate>("sampleRate"),
        DXRKVOProperty::of<&Runner::devices, &Runner::_kvo_devices>("devices"),
        DXRKVOProperty::of<&Runner::activeDevices, &Runner::_kvo_activeDevices>("activeDevices"),
        DXRKVOProperty::of<&Runner::isRunning, &Runner::_kvo_isRunning>("isRunning"),
        DXRKVOProperty::of<&Runner::error, &Runner::_kvo_error>("error"),
    };
    return properties;
}

// ---- Frame count and rate

uint32_t DXRDeviceRunner::frameCount() const
{
    return _kvo->isUpdateInProgress() ? _kvo_frameCount : _io->frameCount.value();
}

double DXRDeviceRunner::sampleRate() const
{
    return _kvo->isUpdateInProgress() ? _kvo_sampleRate : _io->sampleRate.value();
}

bool DXRDeviceRunner::setFrameCount(uint32_t frameCount)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    return frameCount <= maxFrames && _request(_io->frameCount.requested, frameCount, "frameCount");
}

bool DXRDeviceRunner::setSampleRate(double sampleRate)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    return (sampleRate == 0.0 || QDLAudioDeviceSampleRateIsValid(sampleRate)) &&
           _request(_io->sampleRate.requested, sampleRate, "sampleRate");
}

bool DXRDeviceRunner::setConversionQuality(DXRConversionQuality quality)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    bool isAccepted = false;
    _queue->dispatchSync([&] {
        isAccepted = !_running;
        if (isAccepted)
            _io->conversionQuality = quality;
    });
    return isAccepted;
}

DXRConversionQuality DXRDeviceRunner::conversionQuality() const noexcept
{
    return _io->conversionQuality.load(std::memory_order_relaxed);
}

template <class Value>
bool DXRDeviceRunner::_request(std::atomic<Value>& requested, Value value, const char* key)
{
    bool isAccepted = false;
    _queue->dispatchSync([&] {
        if (_running)
            return;
        requested = value;
        _kvo->updateValueForKey(key);
        isAccepted = true;
    });
    return isAccepted;
}

// ---- Devices

DXRDeviceRunner::Devices DXRDeviceRunner::devices() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_devices.value_or(Devices());
    Devices devices;
    _queue->dispatchSyncImmed([&] {
        for (const auto& direction : _nodes) {
            for (const CXRef<DXRDeviceNode>& node : direction)
                devices.insert(node->device());
        }
    });
    return devices;
}

DXRDeviceRunner::Devices DXRDeviceRunner::activeDevices() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_activeDevices.value_or(Devices());
    Devices devices;
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        for (const auto& direction : _nodes) {
            for (const CXRef<DXRDeviceNode>& node : direction) {
                if (_isActive(node))
                    devices.insert(node->device());
            }
        }
    });
    return devices;
}

bool DXRDeviceRunner::addDevice(const CXRef<DXRDevice>& device, const std::optional<Channels>& channels,
                                const DXRIOBlock& ioblock)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    if (!device || !ioblock)
        return false;
    bool isAdded = false;
    _queue->dispatchSync([&] {
        if (_nodeForDevice(device, nullptr))
            return;
        const CXRef<DXRDeviceNode> node = DXRDeviceNode::nodeWithDevice(device, channels, ioblock);
        const uint32_t frames = std::max(_io->frameCount.value(), 1U);
        if (uint64_t{frames} * node->channels().size() > DXRDeviceNode::maxSamples)
            return;
        _stopDispatchStart(Restart::Nodes, [&] {
            _nodes[node->isInput() ? 0 : 1].push_back(node);
            node->setRunner(CXRef(this));
        });
        _propertiesChanged();
        isAdded = true;
    });
    return isAdded;
}

bool DXRDeviceRunner::removeDevice(const CXRef<DXRDevice>& device)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    bool isRemoved = false;
    _queue->dispatchSync([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        size_t index = notFound;
        const CXRef<DXRDeviceNode> node = _nodeForDevice(device, &index);
        if (!node || _isDefaultNode(node))
            return;
        _stopDispatchStart(Restart::Nodes, [&] {
            node->setRunner(nullptr);
            auto& nodes = _nodes[node->isInput() ? 0 : 1];
            nodes.erase(nodes.begin() + static_cast<std::ptrdiff_t>(index));
        });
        _propertiesChanged();
        _followDefaults(); // it may be the default device, not followed until now
        isRemoved = true;
    });
    return isRemoved;
}

bool DXRDeviceRunner::addDefaultDevice(Direction direction, const std::optional<Channels>& channels,
                                       const DXRIOBlock& ioblock)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    if (!ioblock)
        return false;
    bool isAdded = false;
    _queue->dispatchSync([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        const size_t place = direction == Direction::Input ? 0 : 1;
        if (_followedDefaults[place])
            return;
        _followedDefaults[place] = {channels, ioblock, nullptr};
        if (!_defaultsNotifier) { // also called when the default device changes
            _defaultsNotifier = [weak = CXWeak(*this)](const Devices&, const Devices&, const Devices&) {
                if (const CXRef<DXRDeviceRunner> self = weak.lock())
                    self->_followDefaults();
            };
            addDeviceNotifier(_defaultsNotifier);
        }
        _followDefaults();
        isAdded = true;
    });
    return isAdded;
}

void DXRDeviceRunner::removeDefaultDevice(Direction direction)
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    _queue->dispatchSync([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        const size_t place = direction == Direction::Input ? 0 : 1;
        if (!_followedDefaults[place])
            return;
        const FollowedDefault followed = *std::exchange(_followedDefaults[place], std::nullopt);
        if (!_followedDefaults[0] && !_followedDefaults[1])
            removeDeviceNotifier(std::exchange(_defaultsNotifier, nullptr));
        if (followed.node)
            _stopDispatchStart(Restart::Nodes, [&] { std::erase(_nodes[place], followed.node); });
        _propertiesChanged();
    });
}

// Defined here, because DXRDeviceNode.cpp does not include the runner.
CXRef<DXRDeviceRunner> DXRDeviceNode::runner() const
{
    return _runner.lock();
}

void DXRDeviceNode::setRunner(const CXRef<DXRDeviceRunner>& runner)
{
    _runner = runner;
}

void DXRDeviceRunner::_followDefaults()
{
    _defaultsRetry->reset();
    _tryToFollowDefaults();
}

void DXRDeviceRunner::_tryToFollowDefaults()
{
    const bool isInputRead = _followDefault(0), isOutputRead = _followDefault(1);
    if (isInputRead && isOutputRead)
        return _defaultsRetry->cancel();
    _defaultsRetry->start([weak = CXWeak(*this)] { // the change is not notified again
        if (const CXRef<DXRDeviceRunner> self = weak.lock())
            self->_tryToFollowDefaults();
    });
}

/// Changes to the present default device, unless it is unknown or already added. Returns false if it could
/// not be read.
bool DXRDeviceRunner::_followDefault(size_t direction)
{
    CX_ASSERT_ON_QUEUE(_queue);
    std::optional<FollowedDefault>& followed = _followedDefaults[direction];
    if (!followed)
        return true;
    const DXRReadCheck reads;
    const CXRef<DXRDevice> device =
        direction == 0 ? manager().defaultInputDevice() : manager().defaultOutputDevice();
    if (!device || _nodeForDevice(device, nullptr))
        return !reads.hasFailed();
    const CXRef<DXRDeviceNode> node =
        DXRDeviceNode::nodeWithDevice(device, followed->channels, followed->ioblock);
    _stopDispatchStart(Restart::Devices, [&] {
        auto& nodes = _nodes[direction];
        const auto before = std::ranges::find(nodes, followed->node);
        if (before == nodes.end())
            nodes.push_back(node);
        else
            *before = node; // at the same index: later outputs overwrite earlier ones
        node->setRunner(CXRef(this));
        followed->node = node;
    });
    _propertiesChanged();
    return true;
}

bool DXRDeviceRunner::_isDefaultNode(const CXRef<DXRDeviceNode>& node) const
{
    return std::ranges::any_of(_followedDefaults,
                               [&](const auto& followed) { return followed && followed->node == node; });
}

CXRef<DXRDeviceNode> DXRDeviceRunner::_nodeForDevice(const CXRef<DXRDevice>& device, size_t* index) const
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (index)
        *index = notFound;
    if (!device)
        return nullptr;
    const auto& nodes = _nodes[device->isInput() ? 0 : 1];
    const auto found = std::ranges::find(nodes, device, &DXRDeviceNode::device);
    if (found == nodes.end())
        return nullptr;
    if (index)
        *index = static_cast<size_t>(found - nodes.begin());
    return *found;
}

// ---- Running

uint64_t DXRDeviceRunner::sampleTime() const noexcept
{
    return _io->sampleTime.load(std::memory_order_relaxed);
}

bool DXRDeviceRunner::isRunning() const
{
    return _kvo->isUpdateInProgress() ? _kvo_isRunning : _running.load();
}

DXRDeviceRunnerError DXRDeviceRunner::error() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_error;
    DXRDeviceRunnerError error;
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        error = _error;
    });
    return error;
}

void DXRDeviceRunner::start()
{
    CX_ASSERT_NOT_ON_QUEUE(_queue);
    _queue->dispatchSync([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        if (_running)
            return;
        _running = true;
        _deviceNotifier = [weak = CXWeak(*this)](const Devices& connected, const Devices& disconnected,
                                                 const Devices& /*updated*/) {
            if (const CXRef<DXRDeviceRunner> strongSelf = weak.lock())
                strongSelf->_devicesChanged(connected, disconnected);
        };
        addDeviceNotifier(_deviceNotifier);
        _start();
        _propertiesChanged();
    });
}

void DXRDeviceRunner::stop()
{
    if (_queue->isDispatchedOnCurrentThread())
        _queue->dispatchAsync(_stopWork);
    else
        _queue->dispatchSync([&] { _stopRunning(); });
}

void DXRDeviceRunner::_stopRunning()
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (!_running)
        return;
    removeDeviceNotifier(_deviceNotifier);
    _deviceNotifier = nullptr;
    _stop();
    _io->reset();
    _lastRestart = Restart::None;
    _startRetry->reset();
    _error = {};
    _running = false;
    _propertiesChanged();
}

void DXRDeviceRunner::_start()
{
    CX_ASSERT_ON_QUEUE(_queue);
    const uint64_t beginTicks = dxr::HostClock::nowTicks();
    ++_io->contextNumber;
    _io->lostFrames = 0;
    // A cycle may detect a new layout before its DXRDevice does; channels that the device does not yet have
    // would stay silent.
    for (const auto& direction : _nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction)
            DXRDeviceControl(*node->device()).refreshIfChannelsChanged();
    }
    _error = {};
    _context = _newContext();
    const bool isStarted = _context && _context->start();
    if (_context)
        _error = _context->error();
    _countedContext->set(isStarted ? _context.get() : nullptr);
    if (isStarted)
        _startRetry->reset();
    else
        _retryLater();
    using enum DXRCycleRecord::Event;
    _traceContext(isStarted ? ContextStarted : ContextFailed, beginTicks);
}

/// The context for the devices that can run now: an aggregate of several devices, one device, or the timer if
/// there is none. Returns null and sets the error if the aggregate cannot be created.
CXRef<DXRAudioContext> DXRDeviceRunner::_newContext()
{
    CX_ASSERT_ON_QUEUE(_queue);
    DXRAudioContext::Viables viables;
    for (const auto& direction : _nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction) {
            if (node->isViable())
                viables.insert(node);
        }
    }
    const std::vector<std::string> deviceUIDs = DXRAudioContext::deviceUIDsOf(_nodes, viables);
    if (deviceUIDs.size() >= 2 && viables.size() > 1) {
        HALStatus status = kAudioHardwareNoError;
        auto context = DXRAudioAggregateContext::initWithIO(*_io, CXRef<CXObject>(this), _nodes,
                                                            std::move(viables), deviceUIDs, &status);
        if (!context)
            _error = {"", status,
                      "cannot combine the devices (status '" +
                          stringWithFourCharCode(static_cast<uint32_t>(status)) + "')"};
        return context;
    }
    if (!viables.empty())
        return DXRAudioContext::initWithIO(*_io, CXRef<CXObject>(this), _nodes, std::move(viables),
                                           deviceUIDs);
    return DXRAudioTimerContext::initWithIO(*_io, CXRef<CXObject>(this), _nodes);
}

void DXRDeviceRunner::_retryLater()
{
    _startRetry->start([weak = CXWeak(*this)] {
        if (const CXRef<DXRDeviceRunner> self = weak.lock(); self && self->_running) {
            self->_stopDispatchStart(Restart::Retry, nullptr);
            self->_propertiesChanged();
        }
    });
}

void DXRDeviceRunner::_stop()
{
    CX_ASSERT_ON_QUEUE(_queue);
    _startRetry->cancel();
    const uint64_t beginTicks = dxr::HostClock::nowTicks();
    _countedContext->set(nullptr);
    if (_context)
        _context->stop();
    _traceContext(DXRCycleRecord::Event::ContextStopped, beginTicks);
    _context = nullptr;
}

void DXRDeviceRunner::_stopDispatchStart(Restart reason, CXBlockRef<void()> block)
{
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        if (_running)
            _stop();
        if (block)
            block();
        if (_running) {
            _lastRestart = reason;
            _start();
        }
    });
}

void DXRDeviceRunner::_contextLostLayout(const CXObject& context)
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (_context.get() != &context)
        return;
    _stopDispatchStart(Restart::Layout, nullptr);
    _propertiesChanged();
}

void DXRDeviceRunner::_devicesChanged(const Devices& connected, const Devices& disconnected)
{
    CX_ASSERT_SAYING(_running, "strongSelf->_running");
    CX_ASSERT_ON_QUEUE(_queue);
    if (!_shouldRestartForDevicesConnected(connected, disconnected))
        return;
    _stopDispatchStart(Restart::Devices, nullptr);
    _propertiesChanged();
}

bool DXRDeviceRunner::_shouldRestartForDevicesConnected(const Devices& connected,
                                                        const Devices& disconnected) const
{
    if (_error && !(connected.empty() && disconnected.empty()))
        return true; // for example a part of a node's aggregate, which is no device of a node itself
    for (const auto& direction : _nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction) {
            if ((_isViable(node) ? disconnected : connected).contains(node->device()))
                return true;
        }
    }
    return false;
}

bool DXRDeviceRunner::_isViable(const CXRef<DXRDeviceNode>& node) const
{
    return _context && _context->viableNodes().contains(node);
}

// ---- Tracing and counting

DXRRunnerCounts DXRDeviceRunner::counts() const
{
    DXRRunnerCounts counts;
    counts.cycles = _io->cycles;
    counts.lateCycles = _io->lateCycles;
    const uint32_t contexts = _io->contextNumber;
    counts.restarts = contexts > 0 ? contexts - 1 : 0;
    counts.lastRestart = _lastRestart;
    counts.devices = _countedContext->counts(_io->lostFrames);
    return counts;
}

std::vector<DXRDeviceLatency> DXRDeviceRunner::latencies() const
{
    std::vector<DXRDeviceLatency> latencies;
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        if (_context && !_error)
            latencies = _context->latencies();
    });
    return latencies;
}

std::optional<double> DXRDeviceRunner::roundTripSeconds(const CXRef<DXRDevice>& input,
                                                        const CXRef<DXRDevice>& output) const
{
    if (!input || !output)
        return std::nullopt;
    return roundTripSecondsOf(latencies(), input->deviceUID(), output->deviceUID());
}

bool DXRDeviceRunner::setCycleTrace(const CXRef<DXRCycleTrace>& trace)
{
    bool isSet = true;
    CXRef<DXRCycleTrace> before; // released off the queue, because it may be large
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        if (trace == _io->trace)
            return;
        isSet = !trace || trace->take();
        if (!isSet)
            return;
        before = std::exchange(_io->trace, trace);
        if (before)
            before->giveBack();
        _io->isTraced = bool(trace);
        if (_contextState != DXRCycleRecord::Event::ContextStopped)
            _traceContext(_contextState, dxr::HostClock::nowTicks());
    });
    return isSet;
}

void DXRDeviceRunner::_traceContext(DXRCycleRecord::Event event, uint64_t beginTicks)
{
    _contextState = event;
    if (!_io->trace)
        return;
    DXRCycleRecord record = _context ? _io->record(_context->kind(), _context->deviceID())
                                     : _io->record(DXRCycleRecord::Context::None, kAudioObjectUnknown);
    record.event = event;
    record.beginTicks = beginTicks;
    record.endTicks = dxr::HostClock::nowTicks();
    _io->trace->write(record);
}

// ---- Following

void DXRDeviceRunner::setNotifier(const CXRef<dxr::WorkQueue>& queue, const Notifier& block)
{
    _queue->dispatchSyncImmed([&] {
        CX_ASSERT_ON_QUEUE(_queue);
        _notifierQueue = queue;
        _notifierBlock = block;
    });
}

void DXRDeviceRunner::addDeviceNotifier(const DeviceNotifier& block)
{
    if (!block)
        return;
    _queue->dispatchSyncImmed([&] { _deviceNotifiers->add(block, CXRef<CXObject>(this)); });
}

void DXRDeviceRunner::removeDeviceNotifier(const DeviceNotifier& block)
{
    _queue->dispatchSyncImmed([&] { _deviceNotifiers->remove(block); });
}

CXRef<DXRPropertyListener>
DXRDeviceRunner::propertyListenerWithObjectID(AudioObjectID objectID, const AudioObjectPropertyAddress* addr,
                                              const CXRef<CXObject>& target,
                                              const DXRPropertyListener::Block& block)
{
    const auto wrapper = [weakTarget = CXWeak(target), block](const CXRef<CXObject>& runner,
                                                              const AudioObjectPropertyAddress* changed) {
        // Captured by value: the caller's address is invalid by the time the queue runs this.
        const auto call = [weakTarget, block, address = *changed] {
            if (const CXRef<CXObject> strongTarget = weakTarget.lock(); strongTarget && block)
                block(strongTarget, &address);
        };
        const CXRef<CXDispatchQueue>& queue = static_cast<DXRDeviceRunner&>(*runner)._queue;
        if (queue->isDispatchedOnCurrentThread())
            call();
        else
            queue->dispatchAsync(call);
    };
    return DXRPropertyListener::initWithObjectID(objectID, addr, nullptr, CXRef<CXObject>(this), wrapper);
}

void DXRDeviceRunner::_propertiesChanged()
{
    CX_ASSERT_ON_QUEUE(_queue);
    std::string signature = _stateSignature();
    if (signature == _signature)
        return;
    _signature = std::move(signature);
    if (const Notifier notifier = _notifierBlock) {
        if (_notifierQueue)
            _notifierQueue->async(notifier);
        else
            notifier();
    }
    _kvo->updateAllValues();
}

/// For example "1@512/48000[1@7F9A1C0(1/2):1@7F9A2E0(1/2)]": whether the runner runs, frame count, rate; for
/// each node whether it is viable, its device, and its channels, with 0 for an unused one. Channels are
/// looked up by their own number although the usage map lists context channels: this suffices to tell two
/// states apart.
std::string DXRDeviceRunner::_stateSignature() const
{
    char text[80];
    std::snprintf(text, sizeof text, "%d@%u/", _running ? 1 : 0, frameCount());
    std::string signature = text + numberText(sampleRate()) + "[";
    const char* separator = "";
    for (const auto& direction : _nodes) {
        auto nodes = direction;
        std::ranges::sort(nodes, {}, [](const CXRef<DXRDeviceNode>& node) { return node->device(); });
        for (const CXRef<DXRDeviceNode>& node : nodes) {
            const bool isActive = _isActive(node);
            const Channels usageMap = node->usageMap();
            std::snprintf(text, sizeof text, "%s%d@%lX(", separator, isActive ? 1 : 0,
                          reinterpret_cast<unsigned long>(node->device().get()));
            signature += text;
            separator = "";
            for (const uint32_t channel : node->channels()) {
                const uint32_t index = channel - 1; // for channel 0 this wraps beyond every map
                const bool isUsed = isActive && index < usageMap.size() && usageMap[index] != 0;
                signature += separator + std::to_string(isUsed ? channel : 0);
                separator = "/";
            }
            signature += ")";
            separator = ":";
        }
    }
    return signature + "]" + _error.text;
}
