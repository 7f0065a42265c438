#pragma once

#include <vector>

/// What the sampler makes of a tone, in the block lengths of a device.
struct ToneMeasurement {
    double hertz;         ///< of the tone
    double response;      ///< dB, of the tone over the tone that went in; not a number where it cannot pass
    double alias;         ///< dB over the tone that went in: the loudest tone that was not there before
    double signalToNoise; ///< dB, of the tone over all the rest; not a number where it cannot pass
};

/// Sends tones from 20 Hz to the input's half rate through the sampler, one after the other. Rates in Hz.
/// Threads: any.
std::vector<ToneMeasurement> measureSampler(double rateIn, double rateOut);
