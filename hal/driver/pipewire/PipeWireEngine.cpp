#include "PipeWireEngine.h"

#include "PipeWireDeviceDriver.h"
#include "PipeWireDeviceIO.h"

namespace {

constexpr std::chrono::seconds maxWaitForEnumeration{2};

} // namespace

PipeWireEngine::PipeWireEngine(const std::optional<std::string>& remote)
    : _remote(remote), _loop([this] {
          _hasLoop = true;
          _beginWhenReady();
      })
{}

void PipeWireEngine::start(HALDriverSink& sink)
{
    _enumerateUntil = std::chrono::steady_clock::now() + maxWaitForEnumeration;
    _loop.post([this, &sink] {
        _sink = &sink;
        _beginWhenReady();
        if (!_hardware)
            enumerated(); // without a loop there is nothing to wait for
    });
}

void PipeWireEngine::_beginWhenReady()
{
    if (!_hasLoop || !_sink)
        return;
    PipeWireModel& model = *this;
    _hardware = std::make_unique<PipeWireHardware>(_loop, model, _remote);
    _hardware->connect();
}

void PipeWireEngine::stop()
{
    const Reply reply = PipeWireReply::make();
    const bool hasThread = _loop.post([this, reply] {
        _hardware.reset();
        _drivers.clear();
        _sink = nullptr;
        reply->finish(kAudioHardwareNoError);
    });
    if (hasThread && !_loop.isCurrent()) // without a thread nothing was ever reported
        reply->wait(HALDeadline::max());
}

HALStatus PipeWireEngine::carryOut(const Work& work, HALDeadline deadline)
{
    Reply reply = PipeWireReply::make();
    if (_loop.isCurrent()) { // the end of a callback's closure may call anything
        if (_hardware)
            work(*_hardware, reply);
        return kAudioHardwareNoError;
    }
    _loop.post([this, work, reply] { // whose end runs what was posted
        if (_hardware)
            work(*_hardware, reply);
        else
            reply->finish(kAudioHardwareUnspecifiedError);
    });
    return PipeWireDeviceIO::isOnIOThread() ? kAudioHardwareNoError : reply->wait(deadline);
}

void PipeWireEngine::waitUntilEnumerated()
{
    if (_isEnumerated.load(std::memory_order_acquire) || _loop.isCurrent() ||
        PipeWireDeviceIO::isOnIOThread())
        return;
    std::unique_lock lock(_mutex);
    _enumerationEnded.wait_until(lock, _enumerateUntil, [this] { return _isEnumerated.load(); });
    _isEnumerated = true; // a server that hangs is waited for once
}

// ---- What the loop reports

AudioObjectID PipeWireEngine::deviceAppeared(const HALDeviceState& state)
{
    const AudioObjectID number = ++_lastNumber;
    const auto driver = PipeWireDeviceDriver::initWithNumber(number, CXRef(this));
    _drivers.emplace(number, driver);
    _sink->deviceAdded(driver, state);
    return number;
}

void PipeWireEngine::deviceChanged(AudioObjectID deviceID, const HALDeviceState& state)
{
    if (const auto driver = _drivers.find(deviceID); driver != _drivers.end())
        _sink->deviceChanged(*driver->second, state);
}

void PipeWireEngine::deviceDisappeared(AudioObjectID deviceID)
{
    if (auto driver = _drivers.extract(deviceID))
        _sink->deviceRemoved(*driver.mapped());
}

void PipeWireEngine::defaultChanged(HALDefault which, AudioObjectID deviceID)
{
    const auto driver = _drivers.find(deviceID);
    _sink->defaultChanged(which, driver == _drivers.end() ? nullptr : driver->second.get());
}

std::string PipeWireEngine::unavailableReason() const
{
    if (_hasServer)
        return {};
    return "cannot connect to the PipeWire server at " +
           PipeWireSocketWatch::socketsOfRemote(_remote).front().string();
}

void PipeWireEngine::enumerated()
{
    const std::scoped_lock lock(_mutex);
    _isEnumerated = true;
    _enumerationEnded.notify_all();
}
