#pragma once

#include "DemoRecording.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

/// The demo's simulated computer: a microphone that hears a steady tone, and two outputs, each at a rate of its own and
/// by a clock that runs a little fast or slow. None takes the rate of another.
/// Threads: one; the devices' IO threads make and take the sound.
class DemoStage {
public:
    enum Device : size_t { Microphone, Monitors, Headphones };
    static constexpr std::array devices{Microphone, Monitors, Headphones};
    static constexpr std::array outputs{Monitors, Headphones};
    static constexpr double toneFrequency = 997.0; ///< Hz by the microphone's clock
    static constexpr double toneAmplitude = 0.5;

    struct Facts {
        const char* name;
        bool isInput;
        double sampleRate;      ///< Hz
        double partsPerMillion; ///< how much faster than nominal its clock runs
    };
    static const Facts& factsOf(Device device);

    /// A computer without devices, made the process's hardware, whose outputs' sound is kept for `seconds`.
    explicit DemoStage(double seconds);
    /// Nothing may run on the devices any more.
    ~DemoStage();
    DemoStage(const DemoStage&) = delete;
    DemoStage& operator=(const DemoStage&) = delete;

    /// Plugs the device in where it was, at full volume: it remembers nothing itself.
    void plug(Device device);
    void unplug(Device device);
    /// The headphones go into another port of the bus when they are plugged in next, which gives them another UID.
    void changePort();

    /// Of the device as it is plugged in, or will be.
    std::string uidOf(Device device) const;
    /// Which device has, or had, that UID.
    static std::optional<Device> deviceOf(const std::string& uid);
    const DemoRecording& recordingOf(Device output) const { return *_recordings[output]; }

private:
    const CXRef<SimulatedHardware> _backend;
    uint32_t _location; // of the headphones, as the bus knows it
    std::array<std::unique_ptr<DemoRecording>, devices.size()> _recordings; // none for the microphone
};
