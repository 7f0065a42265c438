#pragma once

#include "PipeWireHardware.h"
#include "PipeWireRequests.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class PipeWireLoop;

/// The driver for the devices of a PipeWire server: reports sinks, sources and cards with their volumes,
/// routes, rates and cycle lengths, and runs audio through them. Reconnects when the server restarts.
/// Threads: as HALHardwareDriver. Uses two threads: one for the server, and PipeWire's own for audio.
/// Waits:   carryOut() until its deadline; waitUntilEnumerated() until two seconds after start() at most;
///          stop() for the loop.
/// Fails:   there are no devices while no server runs. If the server hangs, writes return 'what' at their
///          deadline, and reads return the last known values.
class PipeWireDriver final : public PipeWireRequests, PipeWireHardwareOwner {
public:
    /// `remote` is a remote name or the path of a server's socket; nullopt means the user's own server, found
    /// as every PipeWire client finds it.
    static CXRef<PipeWireDriver> initWithRemote(const std::optional<std::string>& remote = std::nullopt);

    void start(HALDriverSink& sink) override;
    void stop() override;
    void waitUntilEnumerated() override;
    std::string unavailableReason() const override;
    HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline) override;

    HALStatus carryOut(const Work& work, HALDeadline deadline) override;

private:
    explicit PipeWireDriver(const std::optional<std::string>& remote);
    ~PipeWireDriver() override;

    CXRef<HALDeviceDriver> makeDriver() override;
    void serverFound(bool isFound) override { _hasServer = isFound; }
    void enumerated() override;
    void _beginWhenReady();

    const std::optional<std::string> _remote;
    HALDeadline _enumerateUntil; // set by start()
    std::mutex _mutex;
    std::condition_variable _enumerationEnded;
    // Set to true once, under _mutex, and never reset. waitUntilEnumerated() also reads it without the lock:
    // its acquire load pairs with the store after the devices were reported.
    std::atomic<bool> _isEnumerated{false};

    std::atomic<bool> _hasServer{false}; // publishes no other data

    // Used on the loop's thread only.
    bool _hasLoop = false;
    HALDriverSink* _sink = nullptr; // from start() to stop()
    std::unique_ptr<PipeWireHardware> _hardware;

    std::unique_ptr<PipeWireLoop> _loop; // declared last: destroyed first, after it has run the posted work
};
