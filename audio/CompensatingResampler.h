#pragma once

#include "CXObject.h"
#include "CXRealtime.h"
#include "CXRef.h"

#include <cstdint>
#include <vector>

/// Reads a stream of samples at fractional positions. It transfers a stream from one device's clock to
/// another's; the ratio is controlled continuously and stays close to the one that the resampler was created
/// for.
///
/// A windowed sinc in 512 phases with linear interpolation between them. The window is Kaiser's (J. F.
/// Kaiser, "Nonrecursive digital filter design using the I0-sinh window function", 1974); its lengths and
/// shape follow the formulas in Oppenheim and Schafer, "Discrete-Time Signal Processing", 7.5.3, for 112 dB.
/// The error of the linear interpolation at w radians per frame is (w / 512)^2 / 8, which is -122 dB at 10
/// kHz with a rate of 48 kHz. Because the pass band ends at half the rate, samples at whole positions are
/// copied bit for bit.
///
/// Adjacent phases are 1/512 frame apart, so clocks that differ by a few hundred parts per million use the
/// same two rows of the table for many frames. That is why the large table costs no time, and why neither
/// storing half of the symmetric filter nor fewer phases with cubic interpolation would help.
/// Threads:   any; immutable after creation.
/// Real time: read().
class CompensatingResampler final : public CXObject {
public:
    /// The maximum nominal ratio; the minimum is 1 / maxRatio.
    static constexpr double maxRatio = 32.0;

    /// Creates a resampler for about `ratio` input frames per output frame. Above 1, the filter has a lower
    /// cutoff and is longer; aliasing is limited to its transition band, above 0.88 of half the output rate.
    /// Returns null if the ratio is not between 1 / maxRatio and maxRatio.
    static CXRef<CompensatingResampler> initWithRatio(double ratio);

    /// How many input frames an output frame needs before, and after, the input frame at the whole part of
    /// its position.
    uint32_t framesBefore() const noexcept CX_REALTIME { return _tapCount / 2 - 1; }
    uint32_t framesAfter() const noexcept CX_REALTIME { return _tapCount / 2; }
    /// framesAfter() of a resampler for `ratio`; beyond maxRatio, that of maxRatio.
    static uint32_t framesAfterForRatio(double ratio) noexcept;

    /// The positions of consecutive output frames. The position of output frame i is fraction + i * step + i
    /// * (i - 1) / 2 * stepChange input frames after input frame `frame`.
    struct Walk {
        uint64_t frame = 0;
        double fraction = 0.0; ///< 0..1
        double step = 1.0;
        double stepChange = 0.0; ///< per output frame

        /// Returns the walk that begins at output frame `count`.
        Walk after(uint32_t count) const noexcept CX_REALTIME;
    };

    /// One array per channel; the arrays may be ring buffers: frame k of channel c is channels[c][k & mask].
    /// A ring buffer is followed by framesBefore() + framesAfter() frames that repeat its beginning.
    struct Input {
        const float* const* channels;
        uint32_t channelCount;
        uint64_t mask;
    };

    /// Writes `frameCount` frames; sample c of frame f is written to output[f * stride + c].
    void read(const Input& input, const Walk& walk, uint32_t frameCount, float* output,
              size_t stride) const noexcept CX_REALTIME;

private:
    CompensatingResampler(uint32_t tapCount, double ratio);
    ~CompensatingResampler() override = default;

    const uint32_t _tapCount;
    std::vector<float> _table; // one row per phase and one extra row, _tapCount coefficients each
};
