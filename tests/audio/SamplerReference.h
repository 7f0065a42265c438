#pragma once

#include "DenormalFlush.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

/// A reference implementation of the sampler, one channel and one sample at a time. The caller must pass
/// enough input.
class SamplerReference {
public:
    /// How the first frames of a block are interpolated: by the sampler's exception, or as if blocks did
    /// not exist, as a peer would. The difference shows how much noise the exception causes.
    enum class Seam { Published, None };

    explicit SamplerReference(uint32_t channelCount, Seam seam = Seam::Published)
        : channels(channelCount), _seam(seam)
    {}

    uint32_t framesIn(uint32_t framesOut, double rateIn, double rateOut) const
    {
        return framesOut == 0 || rateIn == rateOut ? framesOut : _needed(framesOut, rateIn / rateOut);
    }

    uint32_t framesOut(uint32_t framesIn, double rateIn, double rateOut) const
    {
        if (framesIn == 0 || rateIn == rateOut)
            return framesIn;
        auto frames = static_cast<uint32_t>(std::floor(framesIn * (rateOut / rateIn) + phase));
        while (frames > 0 && _needed(frames, rateIn / rateOut) > framesIn)
            --frames;
        return frames;
    }

    /// Converts `in` input frames to `out` output frames, both interleaved.
    void move(const float* input, uint32_t in, float* output, uint32_t out, double rateIn, double rateOut)
    {
        const DenormalFlush flush;
        const double ratio = rateIn / rateOut;
        const uint32_t exception = _seam == Seam::Published ? 3 : UINT32_MAX;
        const size_t width = channels.size();
        for (size_t c = 0; c < width; ++c) {
            Channel& channel = channels[c];
            const auto x = [&](uint32_t k) {
                return k < 4 ? channel.history[k] : input[std::min(k - 4, in - 1) * width + c];
            };
            for (uint32_t i = 0; i < out; ++i) {
                const double position = _position(i, ratio);
                const uint32_t index = _index(position);
                const auto t = static_cast<float>(position - index);
                const float p0 = index == exception ? x(2) : x(index), p1 = x(index + 1), p2 = x(index + 2),
                            p3 = x(index + 3);
                output[i * width + c] = p1 + t * 0.16666667F * (-2 * p0 - 3 * p1 + 6 * p2 - p3) +
                                        t * t * 0.5F * (p0 - 2 * p1 + p2) +
                                        t * t * t * 0.16666667F * (-p0 + 3 * p1 - 3 * p2 + p3);
            }
            if (ratio < static_cast<double>(0.95F))
                _filter(channel, output + c, out, width, ratio);
            for (uint32_t k = in < 4 ? 0 : in - 4; k < in; ++k) {
                std::copy(channel.history + 1, channel.history + 4, channel.history);
                channel.history[3] = input[k * width + c];
            }
        }
        if (rateIn != rateOut)
            phase = in * (rateOut / rateIn) + phase - out;
    }

    struct Channel {
        float history[4] = {}, x2 = 0, x1 = 0, y1 = 0, y2 = 0;
    };
    double phase = 1;
    std::vector<Channel> channels;

private:
    double _position(uint32_t frame, double ratio) const { return 1 + (1 - phase) * ratio + ratio * frame; }
    static uint32_t _index(double position) { return position < 0 ? 0 : static_cast<uint32_t>(position); }

    uint32_t _needed(uint32_t framesOut, double ratio) const
    {
        const uint32_t last = _index(_position(framesOut - 1, ratio));
        if (last <= 3)
            return last + 1;
        const double length = ratio * (framesOut - 1);
        return static_cast<uint32_t>(std::max(std::floor(_position(0, ratio) - 1 + length), 0.0)) + 1;
    }

    static void _filter(Channel& channel, float* samples, uint32_t count, size_t width, double ratio)
    {
        const auto cutoff = static_cast<float>(ratio * 0.5);
        const double w0 = static_cast<double>(cutoff + cutoff) * std::numbers::pi;
        const double alpha = std::sin(w0) / 1.6, a0 = 1 + alpha;
        const auto b0 = static_cast<float>((1 - std::cos(w0)) * 0.5 / a0),
                   b1 = static_cast<float>((1 - std::cos(w0)) / a0),
                   a1 = static_cast<float>(-2 * std::cos(w0) / a0), a2 = static_cast<float>((1 - alpha) / a0);
        for (uint32_t i = 0; i < count; ++i) {
            float& sample = samples[i * width];
            const float x = sample;
            sample = b0 * (x + channel.x2) + b1 * channel.x1 - a2 * channel.y2 - a1 * channel.y1;
            channel.x2 = channel.x1;
            channel.x1 = x;
            channel.y2 = channel.y1;
            channel.y1 = sample;
        }
    }

    Seam _seam;
};
