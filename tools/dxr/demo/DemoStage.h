#pragma once

#include "DemoRecording.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

/// The demo's simulated computer: a microphone that records a steady tone, and two outputs, each with a
/// different rate and clock. A script disconnects the headphones and connects them at another port, then
/// disconnects and reconnects all devices.
/// Threads: one at a time; the devices' IO threads generate the tone and record the outputs.
class DemoStage {
public:
    enum Device : size_t { Microphone, Monitors, Headphones };
    static constexpr std::array devices{Microphone, Monitors, Headphones};
    static constexpr std::array outputs{Monitors, Headphones};
    static constexpr double toneFrequency = 997.0; ///< Hz, measured by the microphone's clock
    static constexpr double toneAmplitude = 0.5;

    struct Facts {
        const char *name, *uid;
        HALDirection direction;
        double sampleRate;      ///< Hz
        double partsPerMillion; ///< how much faster than nominal its clock runs
    };
    static const Facts& factsOf(Device device);

    struct Step {
        double seconds; ///< since the start
        Device device;
        bool isPlug; ///< true: plug; false: unplug
    };
    static constexpr size_t stepCount = 8;

    /// Makes the simulated computer the process's hardware, with all devices connected. The script takes
    /// `seconds`.
    explicit DemoStage(double seconds);
    /// Audio must have stopped.
    ~DemoStage();
    DemoStage(const DemoStage&) = delete;
    DemoStage& operator=(const DemoStage&) = delete;

    /// Performs the script's next step if it is due `seconds` after the start, and returns it; null if no
    /// step is due.
    std::optional<Step> performNext(double seconds);

    /// The device's current unique ID. That of the headphones changes with their port.
    std::string uidOf(Device device) const;
    const DemoRecording& recordingOf(Device output) const { return *_recordings[output]; }

private:
    void _plug(Device device);
    void _unplug(Device device);
    void _setLocation(uint32_t location);

    const CXRef<SimulatedHardware> _hardware;
    const double _seconds;
    size_t _stepsDone = 0;
    uint32_t _location = 0;                                                 // of the headphones' USB port
    std::array<std::unique_ptr<DemoRecording>, devices.size()> _recordings; // null for the microphone
};
