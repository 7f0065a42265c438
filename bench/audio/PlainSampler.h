#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

/// A straightforward implementation of the sampler: channel by channel, sample by sample.
class PlainSampler {
public:
    /// How the first frames of a block are interpolated: by the sampler's exception, or as if blocks did not
    /// exist, as a peer would. The difference shows how much noise the exception causes.
    enum class Seam { Published, None };

    explicit PlainSampler(uint32_t channels, Seam seam = Seam::Published) : _channels(channels), _seam(seam)
    {}

    uint32_t write(const float* input, uint32_t in, float* output, double rateIn, double rateOut)
    {
        const double ratio = rateIn / rateOut, start = 1 + (1 - _phase) * ratio;
        const double limit = in * (rateOut / rateIn) + _phase;
        auto out = static_cast<uint32_t>(limit);
        while (out > 0 && start + ratio * (out - 1) >= in + 1.0)
            --out;
        const auto width = static_cast<uint32_t>(_channels.size());
        for (uint32_t c = 0; c < width; ++c)
            _channels[c].convert(input + c, in, output + c, out, width, start, ratio, _seam);
        _phase = limit - out;
        return out;
    }

private:
    struct Channel {
        float history[4] = {}, x2 = 0, x1 = 0, y1 = 0, y2 = 0;

        void convert(const float* input, uint32_t in, float* output, uint32_t out, uint32_t width,
                     double start, double ratio, Seam seam)
        {
            const uint32_t exception = seam == Seam::Published ? 3 : UINT32_MAX;
            const auto x = [&](uint32_t k) { return k < 4 ? history[k] : input[size_t{k - 4} * width]; };
            for (uint32_t i = 0; i < out; ++i) {
                const double position = start + ratio * i;
                const auto index = static_cast<uint32_t>(position);
                const auto t = static_cast<float>(position - index);
                const float p0 = index == exception ? x(2) : x(index), p1 = x(index + 1), p2 = x(index + 2),
                            p3 = x(index + 3);
                output[size_t{i} * width] = p1 + t * 0.16666667F * (-2 * p0 - 3 * p1 + 6 * p2 - p3) +
                                            t * t * 0.5F * (p0 - 2 * p1 + p2) +
                                            t * t * t * 0.16666667F * (-p0 + 3 * p1 - 3 * p2 + p3);
            }
            if (ratio < 0.95)
                filter(output, out, width, ratio);
            for (uint32_t k = in < 4 ? 0 : in - 4; k < in; ++k) {
                std::copy(history + 1, history + 4, history);
                history[3] = input[size_t{k} * width];
            }
        }

        void filter(float* samples, uint32_t count, uint32_t width, double ratio)
        {
            const double w0 = ratio * std::numbers::pi, alpha = std::sin(w0) / 1.6, a0 = 1 + alpha;
            const auto b0 = static_cast<float>((1 - std::cos(w0)) / 2 / a0), b1 = 2 * b0,
                       a1 = static_cast<float>(-2 * std::cos(w0) / a0),
                       a2 = static_cast<float>((1 - alpha) / a0);
            for (uint32_t i = 0; i < count; ++i) {
                float& sample = samples[size_t{i} * width];
                const float in = sample;
                sample = b0 * (in + x2) + b1 * x1 - a2 * y2 - a1 * y1;
                x2 = x1;
                x1 = in;
                y2 = y1;
                y1 = sample;
            }
        }
    };

    double _phase = 1;
    std::vector<Channel> _channels;
    const Seam _seam;
};
