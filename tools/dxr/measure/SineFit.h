#pragma once

#include <span>
#include <vector>

/// How well samples are a sine, by the least-squares fit of a sine, a cosine and a constant. What is left over is noise.
struct SineFit {
    double amplitude = 0.0; ///< peak, 1.0 being full scale
    double frequency = 0.0; ///< Hz
    double signalToNoise =
        0.0;                  ///< dB, the energy of the sine over that of everything else; 0 without samples
    double phase = 0.0;       ///< radians, at the first sample
    std::vector<double> rest; ///< the samples without the sine

    /// Of a known frequency.
    static SineFit of(std::span<const double> samples, double frequency, double sampleRate);
    /// Of one that is only known to a thousandth, and is found too. Without `rest`.
    static SineFit nearTo(std::span<const float> samples, double frequency, double sampleRate);
};
