#pragma once

#include "DemoHistory.h"

/// Whether what the demo promises was true in one run of it.
/// Threads: any.
struct DemoClaim {
    bool isTrue;
    std::string about; ///< a word
    std::string text;  ///< with the figures

    /// Sample time never went back, and ahead by no more than the time in which no block was called; while there was no
    /// device the timer kept it by the clock.
    static DemoClaim ofTime(const DemoHistory& history);
    /// In every time without disturbance each output that was there played the tones, at the level its volume makes of
    /// them. `volume` is the headphones', 0 to 1.
    static DemoClaim ofSound(const DemoHistory& history, double volume);
};
