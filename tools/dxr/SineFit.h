#pragma once

#include <span>

/// How well samples are a sine of a known frequency.
struct SineFit {
    double amplitude = 0.0; ///< peak, 1.0 being full scale
    double frequency = 0.0; ///< Hz
    double signalToNoise =
        0.0;                 ///< dB, the energy of the sine over that of everything else; 0 without samples
    double worstBlock = 0.0; ///< dB, of the tenth of a second that fits worst

    /// Fits sine, cosine and constant by least squares to each tenth of a second of `samples`; what is left
    /// over is noise. Fitting in blocks tells a lost frame from noise: it spoils the one block that it is in.
    static SineFit of(std::span<const float> samples, double frequency, double sampleRate);
    /// The same for all samples as one block, of a sine whose frequency is only known to a thousandth and is found too.
    static SineFit nearTo(std::span<const float> samples, double frequency, double sampleRate);
};
