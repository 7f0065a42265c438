#pragma once

#include "DemoStage.h"

#include <dxr/DXRCycleTrace.h>

/// A tenth of a second of an output's recording, compared with the microphone's tone.
struct DemoTone {
    DemoStage::Device output;
    uint64_t hostTicks; ///< the middle of the tenth of a second
    double quality;     ///< dB, ratio of the tone to everything else
    double level;       ///< the tone's peak amplitude
    double pitchError;  ///< parts per million

    /// Measures everything that the outputs have played.
    static std::vector<DemoTone> measure(const DemoStage& stage);
};

/// A time in which no device was connected or disconnected and no context started, in host ticks.
struct DemoStretch {
    uint64_t from, to;
    std::array<bool, DemoStage::devices.size()> isPlugged;

    /// Splits stretches where, according to the trace, a context starts.
    static std::vector<DemoStretch> cut(std::vector<DemoStretch> stretches,
                                        std::span<const DXRCycleRecord> records);
};

/// A claim about the library, and whether a run of the demo confirms it.
struct DemoClaim {
    bool isTrue;
    std::string about; ///< the subject, one word
    std::string text;  ///< the claim with its figures

    /// Sample time never goes back nor runs ahead of the clock, and the timer keeps it without a device.
    static DemoClaim ofTime(std::span<const DXRCycleRecord> records, double sampleRate);
    /// In every stretch, connected outputs play the tone at their level; `volume` is that of the headphones.
    static DemoClaim ofSound(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                             double volume);
};
