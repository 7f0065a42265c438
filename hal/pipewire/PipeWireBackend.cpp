#include "PipeWireBackend.h"

#include "PipeWireDeviceIO.h"
#include "PipeWireHardware.h"
#include "PipeWireLoop.h"
#include "PipeWireModel.h"
#include "PipeWireReply.h"

#include <chrono>
#include <condition_variable>

namespace {

constexpr std::chrono::milliseconds mostForEnumeration{2000};

} // namespace

class PipeWireBackend::Engine final : PipeWireModel {
public:
    Engine(PipeWireBackend& backend, const std::optional<std::string>& remote)
        : _backend(backend), _enumerateUntil(std::chrono::steady_clock::now() + mostForEnumeration),
          _loop([this, remote] {
              PipeWireModel& model = *this;
              _hardware = std::make_unique<PipeWireHardware>(_loop, model, remote);
              _hardware->connect();
          })
    {
        _loop.post([this] {
            if (!_hardware)
                enumerated(); // without a loop there is nothing to wait for
        });
    }
    ~Engine()
    {
        _loop.post([this] { _hardware.reset(); });
    }

    /// Has the loop carry `write` out and waits for its answer; not inside a cycle, which must not wait.
    HALStatus carryOut(const CXBlock<void(PipeWireHardware&, const CXRef<PipeWireReply>&)>& write)
    {
        CXRef<PipeWireReply> reply = PipeWireReply::make();
        if (_loop.isCurrent()) { // the end of a callback's closure may bring anything
            if (_hardware)
                write(*_hardware, reply);
            return kAudioHardwareNoError;
        }
        _loop.post([this, write, reply] {
            if (_hardware)
                write(*_hardware, reply);
            else
                reply->finish(kAudioHardwareUnspecifiedError);
        });
        return PipeWireDeviceIO::isOnIOThread() ? kAudioHardwareNoError : reply->wait();
    }

    void waitUntilEnumerated()
    {
        if (_isEnumerated.load(std::memory_order_acquire) || _loop.isCurrent() ||
            PipeWireDeviceIO::isOnIOThread())
            return;
        std::unique_lock lock(_mutex);
        _enumerationEnded.wait_until(lock, _enumerateUntil, [this] { return _isEnumerated.load(); });
        _isEnumerated = true; // a server that hangs is waited for once
    }

private:
    AudioObjectID deviceAppeared(const HALDeviceState& state) override { return _backend.addDevice(state); }
    void deviceChanged(AudioObjectID deviceID, const HALDeviceState& state) override
    {
        _backend.updateDevice(deviceID, [&](HALDeviceState& now) { now = state; });
    }
    void deviceDisappeared(AudioObjectID deviceID) override { _backend.removeDevice(deviceID); }
    void defaultChanged(HALDefault which, AudioObjectID deviceID) override
    {
        _backend.setDefaultDevice(which, deviceID);
    }
    void enumerated() override
    {
        const std::scoped_lock lock(_mutex);
        _isEnumerated = true;
        _enumerationEnded.notify_all();
    }

    PipeWireBackend& _backend;
    const std::chrono::steady_clock::time_point _enumerateUntil;
    std::mutex _mutex;
    std::condition_variable _enumerationEnded;
    // Set once and never back, under _mutex; read without it by who need not wait. Acquire pairs with the release
    // of the store, after the devices are in the model.
    std::atomic<bool> _isEnumerated{false};
    std::unique_ptr<PipeWireHardware> _hardware; // the loop's
    PipeWireLoop _loop;                          // last: its end comes first, and runs what was posted
};

CXRef<PipeWireBackend> PipeWireBackend::initWithRemote(const std::optional<std::string>& remote)
{
    return CXRef<PipeWireBackend>::adopt(new PipeWireBackend(remote));
}

PipeWireBackend::PipeWireBackend(const std::optional<std::string>& remote)
    : _engine(std::make_unique<Engine>(*this, remote))
{}

PipeWireBackend::~PipeWireBackend()
{
    stopNotifying();
}

void PipeWireBackend::waitUntilEnumerated()
{
    _engine->waitUntilEnumerated();
}

using Reply = CXRef<PipeWireReply>;

HALStatus PipeWireBackend::setNominalSampleRate(AudioObjectID deviceID, double rate)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.setNominalSampleRate(deviceID, rate, reply);
    });
}

HALStatus PipeWireBackend::setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.setBufferFrameSize(deviceID, frameCount, reply);
    });
}

HALStatus PipeWireBackend::setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                                     float scalar)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.setVolume(deviceID, direction, element, scalar, reply);
    });
}

HALStatus PipeWireBackend::setMuted(AudioObjectID deviceID, HALDirection direction, bool muted)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.setMuted(deviceID, direction, muted, reply);
    });
}

HALStatus PipeWireBackend::setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.setDataSource(deviceID, direction, sourceID, reply);
    });
}

HALStatus PipeWireBackend::chooseDefaultDevice(HALDefault which, AudioObjectID deviceID)
{
    return _engine->carryOut([=](PipeWireHardware& hardware, const Reply& reply) {
        hardware.chooseDefaultDevice(which, deviceID, reply);
    });
}

HALStatus PipeWireBackend::startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table)
{
    const HALStatus status = _engine->carryOut(
        [=](PipeWireHardware& hardware, const Reply& reply) { hardware.startIO(deviceID, table, reply); });
    if (status)
        stopIO(deviceID); // a server that only hangs would start it later
    return status;
}

void PipeWireBackend::stopIO(AudioObjectID deviceID)
{
    _engine->carryOut(
        [=](PipeWireHardware& hardware, const Reply& reply) { hardware.stopIO(deviceID, reply); });
}
