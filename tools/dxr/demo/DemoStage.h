#pragma once

#include "DemoRecording.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

/// The demo's simulated computer: a microphone that records a steady tone, and two outputs, each with a rate
/// and a clock of its own. By a script, the headphones disconnect and return at another port, then all
/// devices disconnect and return.
/// Threads: one; the devices' IO threads make and take the sound.
class DemoStage {
public:
    enum Device : size_t { Microphone, Monitors, Headphones };
    static constexpr std::array devices{Microphone, Monitors, Headphones};
    static constexpr std::array outputs{Monitors, Headphones};
    static constexpr double toneFrequency = 997.0; ///< Hz by the microphone's clock
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
        bool isPlug; ///< else unplug
    };
    static constexpr size_t stepCount = 8;

    /// Makes the computer the process's hardware, with all devices connected. The script takes `seconds`.
    explicit DemoStage(double seconds);
    /// No audio may run.
    ~DemoStage();
    DemoStage(const DemoStage&) = delete;
    DemoStage& operator=(const DemoStage&) = delete;

    /// Performs the script's next step that is due `seconds` after the start; null when none is.
    std::optional<Step> performNext(double seconds);

    /// Another one for the headphones at another port.
    std::string uidOf(Device device) const;
    const DemoRecording& recordingOf(Device output) const { return *_recordings[output]; }

private:
    void _plug(Device device);
    void _unplug(Device device);
    void _setLocation(uint32_t location);

    const CXRef<SimulatedHardware> _hardware;
    const double _seconds;
    size_t _stepsDone = 0;
    uint32_t _location = 0;                                                 // of the headphones on the USB
    std::array<std::unique_ptr<DemoRecording>, devices.size()> _recordings; // null for the microphone
};
