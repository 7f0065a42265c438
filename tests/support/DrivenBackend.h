#pragma once

#include "simulated.h"

#include <atomic>
#include <cstring>
#include <vector>

/// Simulated hardware whose cycles the test makes itself, with whatever lists and times: the last callback that was
/// registered is at hand, and the nominal rate is what the test says.
class DrivenBackend final : public HALBackend {
public:
    static CXRef<DrivenBackend> init() { return CXRef<DrivenBackend>::adopt(new DrivenBackend); }

    const CXRef<SimulatedBackend> hardware = SimulatedBackend::init(SimulatedClock::Stepped);
    std::atomic<double> sampleRate{48000.0}; ///< of every device; 0: cannot be read
    AudioDeviceIOBlock callback;             ///< empty when it is gone
    uint32_t registrations = 0;              ///< so far

    HALStatus propertySize(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, uint32_t& size) override
    {
        return hardware->propertySize(objectID, address, qualifier, size);
    }
    HALStatus readProperty(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, std::span<std::byte> out,
                           uint32_t& size) override
    {
        if (address.selector != kAudioDevicePropertyNominalSampleRate)
            return hardware->readProperty(objectID, address, qualifier, out, size);
        const double rate = sampleRate;
        if (rate == 0.0)
            return kAudioHardwareUnspecifiedError;
        std::memcpy(out.data(), &rate, size = sizeof rate);
        return kAudioHardwareNoError;
    }
    HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                            std::span<const std::byte> qualifier, std::span<const std::byte> value) override
    {
        return hardware->writeProperty(objectID, address, qualifier, value);
    }
    HALStatus addListener(AudioObjectID objectID, const Address& address,
                          const HALListener& listener) override
    {
        return hardware->addListener(objectID, address, listener);
    }
    HALStatus removeListener(AudioObjectID objectID, const Address& address,
                             const HALListener& listener) override
    {
        return hardware->removeListener(objectID, address, listener);
    }
    HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                           AudioDeviceIOProcID& procID) override
    {
        callback = block;
        ++registrations;
        return hardware->createIOProc(deviceID, block, procID);
    }
    HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID) override
    {
        return hardware->destroyIOProc(deviceID, procID);
    }
    HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID) override
    {
        return hardware->start(deviceID, procID);
    }
    HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID) override
    {
        return hardware->stop(deviceID, procID);
    }
    HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID) override
    {
        return hardware->createAggregateDevice(description, deviceID);
    }
    HALStatus destroyAggregateDevice(AudioObjectID deviceID) override
    {
        return hardware->destroyAggregateDevice(deviceID);
    }

private:
    DrivenBackend() = default;
    ~DrivenBackend() override = default;
};
