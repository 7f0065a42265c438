#pragma once

#include "CompensatingResampler.h"
#include "DXRConversionQuality.h"
#include "ausampler.h"

#include <memory>
#include <vector>

/// Moves a stream of frames from one rate to another at a fixed ratio, block by block: what a converter needs
/// of the sampler and of the resampler alike. One is driven in one direction, by reads or by writes.
/// Threads:   one at a time.
/// Real time: everything but making one.
class RateConversion {
public:
    /// For `channelCount` channels, and calls of at most `maxFrames` frames on the side with more. High
    /// quality is not to be had beyond the resampler's ratios: then the sampler converts.
    static std::unique_ptr<RateConversion> make(DXRConversionQuality quality, uint32_t channelCount,
                                                double rateIn, double rateOut, uint32_t maxFrames);
    virtual ~RateConversion();

    /// How many input frames a read of `framesOut` takes, and how many frames a write of `framesIn` gives.
    virtual uint32_t framesIn(uint32_t framesOut) const noexcept CX_REALTIME = 0;
    virtual uint32_t framesOut(uint32_t framesIn) const noexcept CX_REALTIME = 0;
    virtual void read(const ausampler_iovec* input, const ausampler_iovec* output,
                      uint32_t framesOut) noexcept CX_REALTIME = 0;
    virtual void write(const ausampler_iovec* input, const ausampler_iovec* output,
                       uint32_t framesIn) noexcept CX_REALTIME = 0;

    /// Where the next output frame lies, in input frames after the next input frame; behind it by the delay.
    virtual double nextPosition() const noexcept CX_REALTIME = 0;
    /// Input frames.
    virtual double delayFrames() const noexcept CX_REALTIME = 0;

protected:
    RateConversion() = default;
    RateConversion(const RateConversion&) = delete;
    RateConversion& operator=(const RateConversion&) = delete;
};
