#pragma once

#include "CompensatingResampler.h"
#include "DXRConversionQuality.h"
#include "ausampler.h"

#include <memory>
#include <vector>

/// Converts a stream of frames from one sample rate to another at a fixed ratio, block by block. It is the
/// interface that the converter needs, implemented with the sampler and with the resampler. Each object is
/// used either for reads or for writes, not for both.
/// Threads:   one at a time.
/// Real time: everything except creation.
class RateConversion {
public:
    /// Creates a conversion for `channelCount` channels and calls of at most `maxFrames` frames, on the side
    /// with more frames. If the ratio exceeds the resampler's limits, the sampler is used instead of high
    /// quality.
    static std::unique_ptr<RateConversion> make(DXRConversionQuality quality, uint32_t channelCount,
                                                double rateIn, double rateOut, uint32_t maxFrames);
    virtual ~RateConversion();

    /// How many input frames a read of `framesOut` consumes, and how many frames a write of `framesIn`
    /// produces.
    virtual uint32_t framesIn(uint32_t framesOut) const noexcept CX_REALTIME = 0;
    virtual uint32_t framesOut(uint32_t framesIn) const noexcept CX_REALTIME = 0;
    virtual void read(const ausampler_iovec* input, const ausampler_iovec* output,
                      uint32_t framesOut) noexcept CX_REALTIME = 0;
    virtual void write(const ausampler_iovec* input, const ausampler_iovec* output,
                       uint32_t framesIn) noexcept CX_REALTIME = 0;

    /// The position of the next output frame, in input frames relative to the next input frame; usually
    /// negative, because of the delay.
    virtual double nextPosition() const noexcept CX_REALTIME = 0;
    /// The delay in input frames.
    virtual double delayFrames() const noexcept CX_REALTIME = 0;

protected:
    RateConversion() = default;
    RateConversion(const RateConversion&) = delete;
    RateConversion& operator=(const RateConversion&) = delete;
};
