#include "PipeWireDriver.h"

#include "PipeWireDeviceDriver.h"
#include "PipeWireDeviceIO.h"
#include "PipeWireLoop.h"
#include "PipeWireReply.h"
#include "PipeWireSocketWatch.h"

namespace {

constexpr std::chrono::seconds maxWaitForEnumeration{2};

} // namespace

CXRef<PipeWireDriver> PipeWireDriver::initWithRemote(const std::optional<std::string>& remote)
{
    return CXRef<PipeWireDriver>::adopt(new PipeWireDriver(remote));
}

PipeWireDriver::PipeWireDriver(const std::optional<std::string>& remote)
    : _remote(remote), _loop(std::make_unique<PipeWireLoop>([this] {
          _hasLoop = true;
          _beginWhenReady();
      }))
{}

PipeWireDriver::~PipeWireDriver() = default;

void PipeWireDriver::start(HALDriverSink& sink)
{
    _enumerateUntil = std::chrono::steady_clock::now() + maxWaitForEnumeration;
    _loop->post([this, &sink] {
        _sink = &sink;
        _beginWhenReady();
        if (!_hardware)
            enumerated(); // without a loop there are no devices to wait for
    });
}

void PipeWireDriver::_beginWhenReady()
{
    if (!_hasLoop || !_sink)
        return;
    PipeWireHardwareOwner& owner = *this;
    _hardware = std::make_unique<PipeWireHardware>(*_loop, owner, *_sink, _remote);
    _hardware->connect();
}

void PipeWireDriver::stop()
{
    const Reply reply = PipeWireReply::make();
    const bool hasThread = _loop->post([this, reply] {
        _hardware.reset();
        _sink = nullptr;
        reply->finish(kAudioHardwareNoError);
    });
    if (hasThread && !_loop->isCurrent()) // without a thread nothing was ever reported
        reply->wait(HALDeadline::max());
}

HALStatus PipeWireDriver::carryOut(const Work& work, HALDeadline deadline)
{
    const Reply reply = PipeWireReply::make();
    if (_loop->isCurrent()) { // a callback that is destroyed on this thread may call the HAL
        if (_hardware)
            work(*_hardware, reply);
        return kAudioHardwareNoError;
    }
    // Capturing `this` is safe: ~PipeWireLoop runs all posted work, while the other members still exist.
    _loop->post([this, work, reply] {
        if (_hardware)
            work(*_hardware, reply);
        else
            reply->finish(kAudioHardwareUnspecifiedError);
    });
    return PipeWireDeviceIO::isOnIOThread() ? kAudioHardwareNoError : reply->wait(deadline);
}

void PipeWireDriver::waitUntilEnumerated()
{
    if (_isEnumerated.load(std::memory_order_acquire) || _loop->isCurrent() ||
        PipeWireDeviceIO::isOnIOThread())
        return;
    std::unique_lock lock(_mutex);
    _enumerationEnded.wait_until(lock, _enumerateUntil, [this] { return _isEnumerated.load(); });
    _isEnumerated = true; // so that only the first calls wait for a server that hangs
}

CXRef<HALDeviceDriver> PipeWireDriver::makeDriver()
{
    return PipeWireDeviceDriver::init(CXRef(this));
}

void PipeWireDriver::enumerated()
{
    const std::scoped_lock lock(_mutex);
    _isEnumerated = true;
    _enumerationEnded.notify_all();
}

std::string PipeWireDriver::unavailableReason() const
{
    if (_hasServer)
        return {};
    return "cannot connect to the PipeWire server at " +
           PipeWireSocketWatch::socketsOfRemote(_remote).front().string();
}

HALStatus PipeWireDriver::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline)
{
    auto* chosen = dynamic_cast<PipeWireDeviceDriver*>(&device);
    return chosen ? chosen->chooseAsDefault(which, deadline)
                  : kAudioHardwareIllegalOperationError; // an aggregate device, unknown to the server
}
