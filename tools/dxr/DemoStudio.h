#pragma once

#include "FrameRing.h"

#include <dxr/simulated.h>
#include <memory>
#include <string>

/// The two devices that the demo's audio runs through: a tone generator, and monitors whose sound is kept to
/// be measured. Threads: one; the devices' IO threads make and take the sound.
class DemoStudio {
public:
    static constexpr const char* generatorUID = "demo-generator";
    static constexpr const char* monitorsUID = "demo-monitors";
    static constexpr double toneFrequency =
        997.0; ///< Hz, on channel 1; channel 2 has one that swells and fades
    static constexpr double sampleRate = 48000.0; ///< Hz
    static constexpr uint32_t cycleFrames = 256;

    /// Plugs the devices in. Keeps `seconds` of sound.
    DemoStudio(SimulatedBackend& backend, double seconds);

    /// What the monitors have played on channel 1, from the first sound on.
    std::vector<float> playedTone();

private:
    const std::shared_ptr<FrameRing> _played; // with the monitors' sink, which writes it
};
