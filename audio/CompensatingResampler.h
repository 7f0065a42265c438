#pragma once

#include "CXObject.h"
#include "CXRealtime.h"
#include "CXRef.h"

#include <cstdint>
#include <vector>

/// Reads a stream of samples at positions between its frames: what brings a stream from one device's clock to
/// another's, by a ratio that is steered all the time and is never far from the one it was made for.
///
/// A windowed sinc in 512 phases with linear interpolation between them. The window is Kaiser's (J. F.
/// Kaiser, "Nonrecursive digital filter design using the I0-sinh window function", 1974); its lengths and
/// shape follow the formulas in Oppenheim and Schafer, "Discrete-Time Signal Processing", 7.5.3, for 112 dB.
/// The error of the linear interpolation at w radians per frame is (w / 512)^2 / 8, which is -122 dB at 10
/// kHz of 48. With the pass band's edge at half the rate, whole positions are read as they are, bit for bit.
///
/// A neighbouring phase lies 1/512 frame away, so clocks that differ by a few hundred parts per million use
/// the same two rows for many frames; that is why a large table costs nothing, and why neither symmetric
/// storage nor fewer phases with cubic interpolation would gain anything.
/// Threads:   any; it does not change after it was made.
/// Real time: read().
class CompensatingResampler final : public CXObject {
public:
    /// The farthest nominal ratio either way.
    static constexpr double maxRatio = 32.0;

    /// For about `ratio` input frames per output frame; above 1 the filter is lowered, and lengthened. What
    /// folds lies in its transition, above 0.88 of half the output's rate. Null when the ratio is not within
    /// Between 1 / maxRatio and maxRatio.
    static CXRef<CompensatingResampler> initWithRatio(double ratio);

    /// How many input frames from a position's whole part backwards, and beyond it onwards, a frame is made
    /// of.
    uint32_t framesBefore() const noexcept CX_REALTIME { return _tapCount / 2 - 1; }
    uint32_t framesAfter() const noexcept CX_REALTIME { return _tapCount / 2; }

    /// The positions of consecutive output frames: output frame i lies
    /// fraction + i * step + i * (i - 1) / 2 * stepChange input frames after input frame `frame`.
    struct Walk {
        uint64_t frame = 0;
        double fraction = 0.0; ///< 0..1
        double step = 1.0;
        double stepChange = 0.0; ///< per output frame

        /// The walk from output frame `count` on.
        Walk after(uint32_t count) const noexcept CX_REALTIME;
    };

    /// Planar input, perhaps a ring: frame k of channel c is channels[c][k & mask]. A ring has room for
    /// framesBefore() + framesAfter() frames behind its end, where it repeats its beginning.
    struct Input {
        const float* const* channels;
        uint32_t channelCount;
        uint64_t mask;
    };

    /// Writes `frameCount` frames, sample c of frame f to output[f * stride + c].
    void read(const Input& input, const Walk& walk, uint32_t frameCount, float* output,
              size_t stride) const noexcept CX_REALTIME;

private:
    CompensatingResampler(uint32_t tapCount, double ratio);
    ~CompensatingResampler() override = default;

    const uint32_t _tapCount;
    std::vector<float> _table; // a row for each phase and one more, _tapCount coefficients each
};
