#pragma once

#include "DemoStage.h"

#include <dxr/DXRCycleTrace.h>

/// A tenth of a second of what an output played, measured by the microphone's tone, which must be in it.
struct DemoTone {
    DemoStage::Device output;
    uint64_t hostTicks; ///< of its middle
    double quality;     ///< dB, the tone over all else
    double level;       ///< of the tone, peak
    double pitchError;  ///< parts per million of what it must be

    /// All that the outputs of a stage have played.
    static std::vector<DemoTone> measure(const DemoStage& stage);
};

/// A time in which no device came or went and the runner kept its context, in host ticks.
struct DemoStretch {
    uint64_t from, to;
    std::array<bool, DemoStage::devices.size()> isPlugged;

    /// Cut where a context starts, by the trace.
    static std::vector<DemoStretch> cut(std::vector<DemoStretch> stretches,
                                        std::span<const DXRCycleRecord> records);
};

/// Whether what the demo promises was true in one run of it.
/// Threads: any.
struct DemoClaim {
    bool isTrue;
    std::string about; ///< a word
    std::string text;  ///< with the figures

    /// Sample time never went back, and ahead by no more than the time in which no block was called; while there was no
    /// device the timer kept it by the clock.
    static DemoClaim ofTime(std::span<const DXRCycleRecord> records, double sampleRate);
    /// In every stretch each output that was plugged in played the tone, at the level its volume makes of it. `volume` is the
    /// headphones', 0 to 1.
    static DemoClaim ofSound(std::span<const DemoTone> tones, std::span<const DemoStretch> stretches,
                             double volume);
};
