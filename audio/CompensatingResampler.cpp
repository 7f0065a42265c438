#include "CompensatingResampler.h"

#include "InstructionSet.h"
#include "PolyphaseKernels.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr uint32_t phaseCount = 512;
constexpr uint32_t usualTaps = 64;
constexpr double attenuation = 112.0;                       // dB
constexpr double kaiserBeta = 0.1102 * (attenuation - 8.7); // Oppenheim and Schafer, equation 7.75

/// The modified Bessel function of order zero, by its power series.
double besselI0(double x)
{
    double sum = 1.0, term = 1.0;
    for (int k = 1; term > sum * 1e-17; ++k) {
        term *= x / (2 * k) * (x / (2 * k));
        sum += term;
    }
    return sum;
}

double sinc(double x)
{
    return x == 0.0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
}

/// The filter at `x` input frames from its centre; `stretch` is the factor by which its cutoff is lowered.
double windowedSinc(double x, double half, double stretch)
{
    const double inside = 1.0 - (x / half) * (x / half);
    if (inside <= 0.0)
        return 0.0;
    const bool isZero = stretch == 1.0 && x != 0.0 && x == std::round(x); // sin() is not exactly 0 there
    return isZero ? 0.0 : sinc(x / stretch) * besselI0(kaiserBeta * std::sqrt(inside));
}

/// The factor by which the cutoff is lowered. A ratio that is only a clock correction is not a rate
/// conversion: the filter and its length stay unchanged.
double stretchForRatio(double ratio)
{
    return ratio < 1.01 ? 1.0 : ratio;
}

uint32_t tapsForRatio(double ratio)
{
    return static_cast<uint32_t>(std::ceil(usualTaps * stretchForRatio(ratio) / 16.0)) * 16;
}

} // namespace

CXRef<CompensatingResampler> CompensatingResampler::initWithRatio(double ratio)
{
    if (!(ratio >= 1.0 / maxRatio && ratio <= maxRatio))
        return nullptr;
    return CXRef<CompensatingResampler>::adopt(
        new CompensatingResampler(tapsForRatio(ratio), stretchForRatio(ratio)));
}

uint32_t CompensatingResampler::framesAfterForRatio(double ratio) noexcept
{
    return tapsForRatio(ratio <= maxRatio ? ratio : maxRatio) / 2;
}

CompensatingResampler::CompensatingResampler(uint32_t tapCount, double ratio)
    : _tapCount(tapCount), _table(size_t{phaseCount + 1} * tapCount)
{
    static_assert(usualTaps * maxRatio <= PolyphaseInput::maximumTaps);
    const double half = tapCount / 2.0;
    std::vector<double> row(tapCount);
    for (uint32_t phase = 0; phase <= phaseCount; ++phase) {
        double sum = 0.0;
        for (uint32_t tap = 0; tap < tapCount; ++tap) {
            const double x =
                static_cast<double>(tap) - (half - 1.0) - phase / static_cast<double>(phaseCount);
            sum += row[tap] = windowedSinc(x, half, ratio);
        }
        // All phases have the same gain; otherwise a constant signal would get a ripple.
        for (uint32_t tap = 0; tap < tapCount; ++tap)
            _table[size_t{phase} * tapCount + tap] = static_cast<float>(row[tap] / sum);
    }
}

CompensatingResampler::Walk CompensatingResampler::Walk::after(uint32_t count) const noexcept
{
    const double n = count;
    const double position = fraction + n * step + n * (n - 1.0) / 2.0 * stepChange;
    const double whole = std::floor(position);
    return {frame + static_cast<uint64_t>(static_cast<int64_t>(whole)), position - whole,
            step + n * stepChange, stepChange};
}

void CompensatingResampler::read(const Input& input, const Walk& walk, uint32_t frameCount, float* output,
                                 size_t stride) const noexcept
{
    constexpr uint32_t most = 128;
    PolyphasePosition positions[most];
    const PolyphaseKernels& kernels = *instructionSet().polyphase;
    const PolyphaseInput kernelInput{_table.data(), _tapCount, input.channels, input.channelCount};
    const uint64_t first = walk.frame - framesBefore();
    for (uint32_t done = 0; done < frameCount; done += most) {
        const uint32_t count = std::min(most, frameCount - done);
        for (uint32_t i = 0; i < count; ++i) {
            const double n = done + i;
            const double position = walk.fraction + n * walk.step + n * (n - 1.0) / 2.0 * walk.stepChange;
            const auto whole = static_cast<uint64_t>(position);
            const double phase = (position - static_cast<double>(whole)) * phaseCount;
            const auto row = static_cast<uint32_t>(phase);
            positions[i] = {static_cast<uint32_t>((first + whole) & input.mask), row,
                            static_cast<float>(phase - row)};
        }
        kernels.filter(kernelInput, positions, count, output + size_t{done} * stride, stride);
    }
}
