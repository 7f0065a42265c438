#pragma once

#include <span>
#include <vector>

/// The least-squares fit of a sine, a cosine and a constant to samples. The rest is noise.
struct SineFit {
    double amplitude = 0.0;     ///< peak, 1.0 being full scale
    double frequency = 0.0;     ///< Hz
    double signalToNoise = 0.0; ///< dB, the energy of the sine to that of the rest; 0 without samples
    double phase = 0.0;         ///< radians, at the first sample
    std::vector<double> rest;   ///< the samples without the sine

    /// Of a known frequency.
    static SineFit of(std::span<const double> samples, double frequency, double sampleRate);
    /// Finds a frequency that is known to a thousandth. Without `rest`.
    static SineFit nearTo(std::span<const float> samples, double frequency, double sampleRate);
};
