#pragma once

#include <vector>

/// A tone after the sampler.
struct ToneMeasurement {
    double hertz;         ///< of the tone
    double response;      ///< dB, against the input tone; NaN above half the output rate
    double alias;         ///< dB, of the loudest new tone against the input tone
    double signalToNoise; ///< dB, of the tone to the rest; NaN like the response
};

/// Samples tones from 20 Hz to half the input rate, in blocks of 512 frames. Rates in Hz.
/// Threads: any.
std::vector<ToneMeasurement> measureSampler(double rateIn, double rateOut);
