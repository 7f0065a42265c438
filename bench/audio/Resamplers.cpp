#include "Resamplers.h"

#include "RateConversion.h"
#include "SamplerReference.h"
#include "SamplerateResampler.h"
#include "ausampler.h"

#include <cstring>
#include <soxr.h>
#include <speex/speex_resampler.h>
#include <stdexcept>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr uint32_t roomFrames = 1 << 16; // more than the output of any block

class Ours final : public Resampler {
public:
    Ours(uint32_t rateIn, uint32_t rateOut, uint32_t channels)
        : _sampler(ausampler_create(channels), ausampler_destroy), _rateIn(rateIn), _rateOut(rateOut)
    {}
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        const uint32_t out = ausampler_write_frames_out(_sampler.get(), frames, _rateIn, _rateOut);
        ausampler_write_interleaved(_sampler.get(), input, output, frames, _rateIn, _rateOut);
        return out;
    }

private:
    std::unique_ptr<ausampler, decltype(&ausampler_destroy)> _sampler;
    const double _rateIn, _rateOut;
};

class OursHigh final : public Resampler {
public:
    OursHigh(uint32_t rateIn, uint32_t rateOut, uint32_t channels)
        : _conversion(
              RateConversion::make(DXRConversionQuality::High, channels, rateIn, rateOut, roomFrames)),
          _input(channels), _output(channels)
    {}
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        const uint32_t out = _conversion->framesOut(frames);
        const size_t stride = _input.size() * sizeof(float);
        for (size_t channel = 0; channel < _input.size(); ++channel) {
            _input[channel] = {const_cast<float*>(input) + channel, stride};
            _output[channel] = {output + channel, stride};
        }
        _conversion->write(_input.data(), _output.data(), frames);
        return out;
    }

private:
    const std::unique_ptr<RateConversion> _conversion;
    std::vector<ausampler_iovec> _input, _output;
};

class Plain final : public Resampler {
public:
    Plain(uint32_t rateIn, uint32_t rateOut, uint32_t channels, SamplerReference::Seam seam)
        : _sampler(channels, seam), _rateIn(rateIn), _rateOut(rateOut)
    {}
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        const uint32_t out = _sampler.framesOut(frames, _rateIn, _rateOut);
        _sampler.move(input, frames, output, out, _rateIn, _rateOut);
        return out;
    }

private:
    SamplerReference _sampler;
    const double _rateIn, _rateOut;
};

/// Computes only the low-pass's feedback, over as many frames as the rates require, for up to four channels
/// at once. Each frame waits for a multiplication and a subtraction of the previous frame, so no sampler with
/// this filter is faster.
class Feedback final : public Resampler {
public:
    Feedback(uint32_t rateIn, uint32_t rateOut, uint32_t channels)
        : _channels(channels), _framesPerFrame(static_cast<double>(rateOut) / rateIn)
    {}
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        const auto out = static_cast<uint32_t>(frames * _framesPerFrame);
        for (uint32_t first = 0; first < _channels; first += 4)
            _run(input, out, output);
        return out;
    }

private:
    typedef float Lanes __attribute__((vector_size(16)));

    static void _run(const float* input, uint32_t frames, float* output)
    {
        Lanes x; // NOLINT(cppcoreguidelines-init-variables)
        std::memcpy(&x, input, sizeof x);
        const Lanes a1 = Lanes{} - 0.25F, a2 = Lanes{} + 0.25F;
        Lanes y1 = Lanes{}, y2 = Lanes{};
        for (uint32_t i = 0; i < frames; ++i) {
            const Lanes y = x - a2 * y2 - a1 * y1;
            y2 = y1;
            y1 = y;
            asm volatile("" : : "x"(y));
        }
        std::memcpy(output, &y1, sizeof y1);
    }

    const uint32_t _channels;
    const double _framesPerFrame;
};

class Swresample final : public Resampler {
public:
    Swresample(uint32_t rateIn, uint32_t rateOut, uint32_t channels, int taps)
    {
        AVChannelLayout layout;
        av_channel_layout_default(&layout, static_cast<int>(channels));
        if (swr_alloc_set_opts2(&_context, &layout, AV_SAMPLE_FMT_FLT, static_cast<int>(rateOut), &layout,
                                AV_SAMPLE_FMT_FLT, static_cast<int>(rateIn), 0, nullptr) != 0)
            throw std::runtime_error("swresample");
        if (taps != 0)
            av_opt_set_int(_context, "filter_size", taps, 0);
        if (swr_init(_context) < 0)
            throw std::runtime_error("swresample");
    }
    ~Swresample() override { swr_free(&_context); }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        const auto* in = reinterpret_cast<const uint8_t*>(input);
        auto* out = reinterpret_cast<uint8_t*>(output);
        return static_cast<uint32_t>(swr_convert(_context, &out, roomFrames, &in, static_cast<int>(frames)));
    }

private:
    SwrContext* _context = nullptr;
};

class Soxr final : public Resampler {
public:
    Soxr(uint32_t rateIn, uint32_t rateOut, uint32_t channels, unsigned long quality)
    {
        const soxr_quality_spec_t spec = soxr_quality_spec(quality, 0);
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        soxr_error_t error = nullptr;
        _soxr = soxr_create(rateIn, rateOut, channels, &error, &io, &spec, nullptr);
        if (error)
            throw std::runtime_error(error);
    }
    ~Soxr() override { soxr_delete(_soxr); }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        size_t used = 0, made = 0;
        soxr_process(_soxr, input, frames, &used, output, roomFrames, &made);
        return static_cast<uint32_t>(made);
    }

private:
    soxr_t _soxr;
};

class Speex final : public Resampler {
public:
    Speex(uint32_t rateIn, uint32_t rateOut, uint32_t channels, int quality)
    {
        int error = 0;
        _speex = speex_resampler_init(channels, rateIn, rateOut, quality, &error);
        if (error != 0)
            throw std::runtime_error("speexdsp");
    }
    ~Speex() override { speex_resampler_destroy(_speex); }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        uint32_t used = frames, made = roomFrames;
        speex_resampler_process_interleaved_float(_speex, input, &used, output, &made);
        return made;
    }

private:
    SpeexResamplerState* _speex;
};

template <class Type, class... Setting> ResamplerKind kind(const char* name, Setting... setting)
{
    return {name,
            [=](uint32_t rateIn, uint32_t rateOut, uint32_t channels) {
                return std::make_unique<Type>(rateIn, rateOut, channels, setting...);
            },
            !std::is_same_v<Type, Feedback>};
}

ResamplerKind samplerate(const char* name, int type)
{
    return {name, [type](uint32_t rateIn, uint32_t rateOut, uint32_t channels) {
                return std::make_unique<SamplerateResampler>(static_cast<double>(rateOut) / rateIn, channels,
                                                             type);
            }};
}

} // namespace

const std::vector<ResamplerKind>& resamplerKinds()
{
    static const std::vector<ResamplerKind> kinds{
        kind<Ours>("dxr"),
        kind<OursHigh>("dxr, high quality"),
        kind<Plain>("the same rules, plain", SamplerReference::Seam::Published),
        kind<Plain>("plain, no block starts", SamplerReference::Seam::None),
        kind<Feedback>("the filter's feedback only"),
        kind<Swresample>("libswresample, 8 taps", 8),
        kind<Swresample>("libswresample, default", 0),
        kind<Soxr>("soxr, quick", static_cast<unsigned long>(SOXR_QQ)),
        kind<Soxr>("soxr, low", static_cast<unsigned long>(SOXR_LQ)),
        kind<Soxr>("soxr, high", static_cast<unsigned long>(SOXR_HQ)),
        kind<Speex>("speexdsp, quality 0", 0),
        kind<Speex>("speexdsp, quality 3", 3),
        samplerate("libsamplerate, linear", SRC_LINEAR),
        samplerate("libsamplerate, sinc fastest", SRC_SINC_FASTEST),
        samplerate("libsamplerate, sinc best", SRC_SINC_BEST_QUALITY),
    };
    return kinds;
}
