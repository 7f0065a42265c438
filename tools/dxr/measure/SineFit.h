#pragma once

#include <span>
#include <vector>

/// The least-squares fit of a sine, a cosine and a constant to samples. The remainder is noise.
struct SineFit {
    double amplitude = 0.0;     ///< peak, 1.0 being full scale
    double frequency = 0.0;     ///< Hz
    double signalToNoise = 0.0; ///< dB, energy of the sine to energy of the remainder; 0 without samples
    double phase = 0.0;         ///< radians, at the first sample
    std::vector<double> rest;   ///< the samples without the sine

    /// Fits a sine of a known frequency, in Hz.
    static SineFit of(std::span<const double> samples, double frequency, double sampleRate);
    /// Also fits the frequency; `frequency` is an estimate to a thousandth. Leaves `rest` empty.
    static SineFit nearTo(std::span<const float> samples, double frequency, double sampleRate);
};
