#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

/// Returns the signal-to-noise ratio in dB: the power of the best-fitting tone, at any level and phase, over
/// the power of the rest.
inline double signalToNoise(const std::vector<float>& samples, double radiansPerFrame)
{
    // A least-squares fit of a sine and a cosine.
    double ss = 0, cc = 0, sc = 0, sx = 0, cx = 0, xx = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double s = std::sin(radiansPerFrame * static_cast<double>(i)),
                     c = std::cos(radiansPerFrame * static_cast<double>(i)),
                     x = static_cast<double>(samples[i]);
        ss += s * s, cc += c * c, sc += s * c, sx += s * x, cx += c * x, xx += x * x;
    }
    const double determinant = ss * cc - sc * sc;
    const double a = (sx * cc - cx * sc) / determinant, b = (cx * ss - sx * sc) / determinant;
    const double signal = a * sx + b * cx;
    return 10 * std::log10(signal / std::max(xx - signal, 1e-30));
}

/// The same at the best frequency near `radiansPerFrame`, because some peers round the ratio that they are
/// given.
inline double signalToNoiseNearby(const std::vector<float>& samples, double radiansPerFrame)
{
    double low = radiansPerFrame * (1 - 1e-6), high = radiansPerFrame * (1 + 1e-6);
    while (high - low > radiansPerFrame * 1e-11) {
        const double a = low + (high - low) * 0.382, b = low + (high - low) * 0.618;
        if (signalToNoise(samples, a) > signalToNoise(samples, b))
            high = b;
        else
            low = a;
    }
    return signalToNoise(samples, (low + high) / 2);
}
