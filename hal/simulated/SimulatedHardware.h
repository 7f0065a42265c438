#pragma once

#include "HALModelBackend.h"
#include "SimulatedBackend.h"
#include "SimulatedDevice.h"
#include "SimulatedFaults.h"

#include "Thread.h"

#include <condition_variable>

/// What stands behind SimulatedBackend: the model, the devices' hardware sides, and the clock that drives
/// them.
/// Threads:   any; advance() and stepCycles() on one at a time.
class SimulatedHardware final : public HALModelBackend {
public:
    static CXRef<SimulatedHardware> initWithClock(SimulatedClock clock);

    AudioObjectID plug(const SimulatedDeviceBuilder& device);
    bool unplug(const std::string& uid);
    bool reconfigure(const std::string& uid, const CXBlock<void(SimulatedDeviceBuilder&)>& change);
    bool setDefault(std::initializer_list<HALDefault> which, const std::string& uid);
    AudioObjectID deviceID(const std::string& uid) const { return deviceWithUID(uid); }

    SimulatedFaults& faults() noexcept { return _faults; }
    bool loseCycles(const std::string& uid, uint32_t count);

    void advance(uint64_t nanoseconds);
    void stepCycles(uint32_t count);
    uint64_t nowTicks() const;
    using HALModelBackend::settle;
    /// Ends every device's cycles and the notification thread.
    void shutDown();

private:
    class Runner; // a device's IO thread on the real-time clock

    explicit SimulatedHardware(SimulatedClock clock);
    ~SimulatedHardware() override;

    HALStatus setNominalSampleRate(AudioObjectID deviceID, double rate) override;
    HALStatus setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount) override;
    HALStatus setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                        float scalar) override;
    HALStatus setMuted(AudioObjectID deviceID, HALDirection direction, bool muted) override;
    HALStatus setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID) override;
    HALStatus chooseDefaultDevice(HALDefault which, AudioObjectID deviceID) override;
    HALStatus startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table) override;
    void stopIO(AudioObjectID deviceID) override;
    HALStatus interceptRead(AudioObjectID objectID, const Address& address, bool isSize) override;

    struct Plugged {
        CXRef<SimulatedDevice> device;
        CXRef<Runner> runner; // none while it does not run, or on the stepped clock
        bool isRunning = false;
    };

    CXRef<SimulatedDevice> _hardwareOf(AudioObjectID deviceID) const;
    HALStatus _alter(AudioObjectID deviceID, const std::function<void(SimulatedDeviceDescription&)>& change);
    void _end(Plugged plugged);
    /// Gives each of the defaults, where it is vacant, to the first of the candidates that can be it.
    void _electDefaults(std::span<const HALDefault> vacant, std::span<const AudioObjectID> candidates);
    std::vector<CXRef<SimulatedDevice>> _runningDevices() const;
    bool _runNextCycle(uint64_t untilTicks);

    const SimulatedClock _clock;
    SimulatedFaults _faults;
    std::mutex _scriptMutex; // one change of the hardware at a time, from its first step to the model's last

    mutable std::mutex _mutex; // what follows; held for look-ups only
    std::condition_variable _cycleEnded;
    std::map<AudioObjectID, Plugged> _plugged;
    uint64_t _nowTicks = 1'000'000'000;        // stepped clock
    const SimulatedDevice* _inCycle = nullptr; // the device that the stepping thread is running
    std::thread::id _steppingThread;
};
