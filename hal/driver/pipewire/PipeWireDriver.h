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

/// The devices of a PipeWire server: sinks, sources and cards as they come and go, their volumes, routes,
/// rates and cycle lengths, and audio through them. It follows the server through its end and its return.
/// Threads: as HALHardwareDriver; two of its own: one for the server, PipeWire's for audio.
/// Waits:   carryOut() until its deadline, waitUntilEnumerated() for two seconds once, stop() for the loop.
/// Fails:   without a server there are no devices, until there is one. A server that hangs makes writes
///          return 'what' at their deadline; reads go on returning what was last known.
class PipeWireDriver final : public PipeWireRequests, PipeWireHardwareOwner {
public:
    /// `remote` is a remote name or the path of a server's socket; nothing means the user's own server, found
    /// as every client of PipeWire finds it.
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
    // Set once and never back, under _mutex; read without it by callers who need not wait. Acquire pairs with
    // the release of the store, after the devices were reported.
    std::atomic<bool> _isEnumerated{false};

    std::atomic<bool> _hasServer{false}; // stands for itself

    // The loop's.
    bool _hasLoop = false;
    HALDriverSink* _sink = nullptr; // from start() to stop()
    std::unique_ptr<PipeWireHardware> _hardware;

    std::unique_ptr<PipeWireLoop> _loop; // last: its end comes first, and runs what was posted
};
