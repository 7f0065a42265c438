#include "RateConversion.h"

#include "CXErrorAdditions.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

class SamplerConversion final : public RateConversion {
public:
    SamplerConversion(uint32_t channelCount, double rateIn, double rateOut)
        : _rateIn(rateIn), _rateOut(rateOut), _sampler(ausampler_create(channelCount))
    {
        CX_ASSERT(_sampler != nullptr);
    }
    ~SamplerConversion() override { ausampler_destroy(_sampler); }

    uint32_t framesIn(uint32_t framesOut) const noexcept override
    {
        return ausampler_read_frames_in(_sampler, framesOut, _rateIn, _rateOut);
    }
    uint32_t framesOut(uint32_t framesIn) const noexcept override
    {
        return ausampler_write_frames_out(_sampler, framesIn, _rateIn, _rateOut);
    }
    void read(const ausampler_iovec* input, const ausampler_iovec* output,
              uint32_t framesOut) noexcept override
    {
        ausampler_read_iovec(_sampler, input, output, framesOut, _rateIn, _rateOut);
    }
    void write(const ausampler_iovec* input, const ausampler_iovec* output,
               uint32_t framesIn) noexcept override
    {
        ausampler_write_iovec(_sampler, input, output, framesIn, _rateIn, _rateOut);
    }
    double nextPosition() const noexcept override
    {
        return (1 - _sampler->phase) * (_rateIn / _rateOut) - delayFrames();
    }
    double delayFrames() const noexcept override { return 2; }

private:
    const double _rateIn, _rateOut;
    ausampler* const _sampler;
};

/// The resampler at a fixed ratio. Its input is stored in one array per channel: first the earlier frames
/// that are still needed, then the frames of the current call.
class FilterConversion final : public RateConversion {
public:
    FilterConversion(CXRef<CompensatingResampler> filter, uint32_t channelCount, double step,
                     uint32_t maxFrames)
        : _filter(std::move(filter)), _channelCount(channelCount), _step(step),
          _heldFrames(_filter->framesBefore() + _filter->framesAfter()), _position(_filter->framesBefore()),
          _capacity(_heldFrames + maxFrames + slackFrames), _held(size_t{_capacity} * channelCount),
          _made(size_t{maxFrames + slackFrames} * channelCount)
    {
        for (uint32_t channel = 0; channel < channelCount; ++channel)
            _channels.push_back(_held.data() + size_t{channel} * _capacity);
    }

    uint32_t framesIn(uint32_t framesOut) const noexcept override
    {
        const uint32_t needed = framesOut == 0 ? 0 : _framesNeeded(framesOut);
        return needed > _heldFrames ? needed - _heldFrames : 0;
    }
    uint32_t framesOut(uint32_t framesIn) const noexcept override
    {
        const uint32_t there = _heldFrames + framesIn;
        const double room = there - _position - _filter->framesAfter();
        auto frames = room <= 0 ? 0U : static_cast<uint32_t>(room / _step) + 1;
        while (frames > 0 && _framesNeeded(frames) > there) // in case the division has rounded up
            --frames;
        return frames;
    }
    void read(const ausampler_iovec* input, const ausampler_iovec* output,
              uint32_t framesOut) noexcept override
    {
        _move(input, framesIn(framesOut), output, framesOut);
    }
    void write(const ausampler_iovec* input, const ausampler_iovec* output,
               uint32_t framesIn) noexcept override
    {
        _move(input, framesIn, output, framesOut(framesIn));
    }
    double nextPosition() const noexcept override { return _position - _heldFrames; }
    double delayFrames() const noexcept override { return _filter->framesAfter(); }

private:
    static constexpr uint32_t slackFrames = 16; // tolerance for counts at fractional ratios

    uint32_t _framesNeeded(uint32_t framesOut) const noexcept
    {
        const double last = _position + _step * static_cast<double>(framesOut - 1);
        return static_cast<uint32_t>(last) + _filter->framesAfter() + 1;
    }

    void _move(const ausampler_iovec* input, uint32_t in, const ausampler_iovec* output,
               uint32_t out) noexcept
    {
        CX_ASSERT(_heldFrames + in <= _capacity && size_t{out} * _channelCount <= _made.size());
        for (uint32_t channel = 0; channel < _channelCount; ++channel) {
            const auto* from = static_cast<const std::byte*>(input[channel].base);
            float* const to = _held.data() + size_t{channel} * _capacity + _heldFrames;
            for (uint32_t frame = 0; frame < in; ++frame, from += input[channel].stride)
                std::memcpy(to + frame, from, sizeof *to);
        }
        _heldFrames += in;
        const double whole = std::floor(_position);
        const CompensatingResampler::Walk walk{static_cast<uint64_t>(whole), _position - whole, _step, 0};
        if (_channelCount > 0)
            _filter->read({_channels.data(), _channelCount, UINT64_MAX}, walk, out, _made.data(),
                          _channelCount);
        for (uint32_t channel = 0; channel < _channelCount; ++channel) {
            auto* to = static_cast<std::byte*>(output[channel].base);
            const float* from = _made.data() + channel;
            for (uint32_t frame = 0; frame < out;
                 ++frame, to += output[channel].stride, from += _channelCount)
                std::memcpy(to, from, sizeof *from);
        }
        _position += _step * static_cast<double>(out);
        _dropSpent();
    }

    void _dropSpent() noexcept
    {
        const auto spent = std::min(static_cast<uint32_t>(_position) - _filter->framesBefore(), _heldFrames);
        _heldFrames -= spent;
        _position -= spent;
        for (uint32_t channel = 0; channel < _channelCount && spent > 0; ++channel) {
            float* const held = _held.data() + size_t{channel} * _capacity;
            std::memmove(held, held + spent, _heldFrames * sizeof *held);
        }
    }

    const CXRef<CompensatingResampler> _filter;
    const uint32_t _channelCount;
    const double _step;       // input frames per output frame
    uint32_t _heldFrames;     // initially silence, one filter length
    double _position;         // position of the next output frame in _held
    const uint32_t _capacity; // frames per channel
    std::vector<float> _held; // one row per channel
    std::vector<float> _made; // a call's output, interleaved
    std::vector<const float*> _channels;
};

} // namespace

RateConversion::~RateConversion() = default;

std::unique_ptr<RateConversion> RateConversion::make(DXRConversionQuality quality, uint32_t channelCount,
                                                     double rateIn, double rateOut, uint32_t maxFrames)
{
    CXRef<CompensatingResampler> filter = quality == DXRConversionQuality::High
                                              ? CompensatingResampler::initWithRatio(rateIn / rateOut)
                                              : nullptr;
    if (filter)
        return std::make_unique<FilterConversion>(std::move(filter), channelCount, rateIn / rateOut,
                                                  maxFrames);
    return std::make_unique<SamplerConversion>(channelCount, rateIn, rateOut);
}
