#pragma once

#include "HALHardwareDriver.h"
#include "PipeWireHardware.h"
#include "PipeWireLoop.h"
#include "PipeWireReply.h"

#include <chrono>
#include <condition_variable>
#include <memory>

/// The loop with the devices that live on it, and the way there from the HAL's clients' threads.
/// Threads: any.
/// Waits:   carryOut() until its deadline, waitUntilEnumerated() for two seconds once, stop() for the loop.
class PipeWireEngine final : public CXObject, PipeWireModel {
public:
    using Reply = CXRef<PipeWireReply>;
    using Work = CXBlock<void(PipeWireHardware&, const Reply&)>;

    static CXRef<PipeWireEngine> initWithRemote(const std::optional<std::string>& remote)
    {
        return CXRef<PipeWireEngine>::adopt(new PipeWireEngine(remote));
    }

    void start(HALDriverSink& sink);
    void stop();
    /// Has the loop carry `work` out and waits for its reply; not inside a cycle, which must not wait.
    HALStatus carryOut(const Work& work, HALDeadline deadline);
    void waitUntilEnumerated();
    std::string unavailableReason() const;

private:
    explicit PipeWireEngine(const std::optional<std::string>& remote);
    ~PipeWireEngine() override = default;

    void _beginWhenReady();
    AudioObjectID deviceAppeared(const HALDeviceState& state) override;
    void deviceChanged(AudioObjectID deviceID, const HALDeviceState& state) override;
    void deviceDisappeared(AudioObjectID deviceID) override;
    void defaultChanged(HALDefault which, AudioObjectID deviceID) override;
    void serverFound(bool isFound) override { _hasServer = isFound; }
    void enumerated() override;

    const std::optional<std::string> _remote;
    std::chrono::steady_clock::time_point _enumerateUntil; // set by start()
    std::mutex _mutex;
    std::condition_variable _enumerationEnded;
    // Set once and never back, under _mutex; read without it by callers who need not wait. Acquire pairs with the
    // release of the store, after the devices were reported.
    std::atomic<bool> _isEnumerated{false};

    std::atomic<bool> _hasServer{false}; // stands for itself

    // The loop's.
    bool _hasLoop = false;
    HALDriverSink* _sink = nullptr; // from start() to stop()
    std::unordered_map<AudioObjectID, CXRef<HALDeviceDriver>>
        _drivers; // by the loop's own number of the device
    AudioObjectID _lastNumber = kAudioObjectUnknown;
    std::unique_ptr<PipeWireHardware> _hardware;

    PipeWireLoop _loop; // last: its end comes first, and runs what was posted
};
