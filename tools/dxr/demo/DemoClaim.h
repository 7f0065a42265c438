#pragma once

#include "DemoStage.h"

#include <dxr/DXRCycleTrace.h>

/// A tenth of a second of an output, measured by the microphone's tone.
struct DemoTone {
    DemoStage::Device output;
    uint64_t hostTicks; ///< of its middle
    double quality;     ///< dB, the tone to the rest
    double level;       ///< of the tone, peak
    double pitchError;  ///< parts per million

    /// Of everything that the outputs have played.
    static std::vector<DemoTone> measure(const DemoStage& stage);
};

/// A time in which no device was connected or disconnected and no context started, in host ticks.
struct DemoStretch {
    uint64_t from, to;
    std::array<bool, DemoStage::devices.size()> isPlugged;

    /// Cut where a context starts, by the trace.
    static std::vector<DemoStretch> cut(std::vector<DemoStretch> stretches,
                                        std::span<const DXRCycleRecord> records);
};

/// A claim about the library, and whether one run of the demo confirms it.
/// Threads: any.
struct DemoClaim {
    bool isTrue;
    std::string about; ///< a word
    std::string text;  ///< with figures

    /// Sample time never goes back, nor ahead of the clock; without a device, the timer keeps it exactly.
    static DemoClaim ofTime(std::span<const DXRCycleRecord> records, double sampleRate);
    /// In every stretch, each connected output plays the tone at the level of its volume, which is `volume`
    /// (0 to 1) for the headphones.
    static DemoClaim ofSound(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                             double volume);
};
